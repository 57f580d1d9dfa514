// nphost::EnrichSummary: what became of the records of an enrichment.
//
// Purpose: counts, added up over blocks and threads, and told at the end as text or as one JSON object.
// Units: found, notFound, withoutNumber and unreadable count numbers, of which a record may have several; the others
// records.
// Ownership: values. Threads: none inside. Errors: std::bad_alloc.
// Complexity: a hash a network that is added.
#pragma once

#include "host/records/Record.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace nphost {

struct EnrichCounts {
    std::uint64_t records = 0; // all but empty lines
    std::uint64_t found = 0;
    std::uint64_t notFound = 0;
    std::uint64_t withoutNumber = 0; // there was none to look up
    std::uint64_t unreadable = 0;    // what there was could not be read as one
    std::uint64_t ambiguous = 0;     // times that came twice
    std::uint64_t impossible = 0;    // times that were left out
    std::array<std::uint64_t, problemsCM> problems{};

    std::uint64_t rejected() const;
    EnrichCounts& operator+=(EnrichCounts const& other);
};

// A number that could not be read, as it stands in a record.
struct UnreadableNumber {
    std::string file;
    std::uint64_t line = 0; // of the record's first line
    std::string text;
};
constexpr std::size_t shownUnreadableCM = 5;

// How many numbers belong to each network.
class NetworkCounts {
  public:
    void add(std::string const& network, std::uint64_t numbers) { countsM[network] += numbers; }
    void add(NetworkCounts const& other);

    // The most frequent first.
    std::vector<std::pair<std::string, std::uint64_t>> sorted() const;

  private:
    std::unordered_map<std::string, std::uint64_t> countsM;
};

struct EnrichSummary {
    EnrichCounts counts;
    NetworkCounts networks;
    std::vector<UnreadableNumber> unreadable; // up to shownUnreadableCM, the first ones
    double seconds = 0;
    bool kept = false;   // rejected records stand in the output
    std::string stopped; // why the input was not read to its end; empty: it was

    // Adds those of a further part of the input.
    void addUnreadable(std::vector<UnreadableNumber> const& more);

    std::string text() const;
    std::string json() const;
};

} // namespace nphost
