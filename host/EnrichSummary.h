// nphost::EnrichSummary: what became of the records of an enrichment.
//
// Purpose: counts, added up over blocks and threads, and told at the end as text or as one JSON object.
// Units: found, notFound and withoutNumber count numbers, of which a record may have several; the others records.
// Ownership: values. Threads: none inside. Errors: std::bad_alloc.
// Complexity: a comparison a network that is counted; a hash for one of more than seven characters, and where several
// shorter ones share a place.
#pragma once

#include "framework/BAS/SimpleString.h"
#include "host/Record.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

namespace nphost {

struct EnrichCounts {
    std::uint64_t records = 0; // all but empty lines
    std::uint64_t found = 0;
    std::uint64_t notFound = 0;
    std::uint64_t withoutNumber = 0; // there was none to look up
    std::uint64_t ambiguous = 0;     // times that came twice
    std::uint64_t impossible = 0;    // times that were left out
    std::array<std::uint64_t, problemsCM> problems{};

    std::uint64_t rejected() const;
    EnrichCounts& operator+=(EnrichCounts const& other);
};

// How many numbers belong to each network.
class NetworkCounts {
  public:
    NetworkCounts() = default;
    NetworkCounts(NetworkCounts const&) = delete;
    NetworkCounts& operator=(NetworkCounts const&) = delete;

    void count(BAS::SimpleString const& network) {
        if (!network.isShort())
            return countLong(network.view());
        std::uint64_t const text = network.shortText();
        Recent& recent = recentM[(text * 0x9e3779b97f4a7c15) >> (64 - recentBitsCM)];
        if (recent.count != nullptr && recent.text == text) {
            ++*recent.count;
            return;
        }
        std::uint64_t& place = placeOf(network.view());
        ++place;
        recent = {text, &place};
    }
    void add(NetworkCounts const& other);

    // The most frequent first.
    std::vector<std::pair<std::string, std::uint64_t>> sorted() const;

  private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
    };

    // Where a short network was counted last: networks are few and records many.
    struct Recent {
        std::uint64_t text = 0;
        std::uint64_t* count = nullptr; // in countsM, where it stays when others are added
    };
    static constexpr unsigned int recentBitsCM = 8;

    void countLong(std::string_view network);
    std::uint64_t& placeOf(std::string_view network);

    std::unordered_map<std::string, std::uint64_t, Hash, std::equal_to<>> countsM;
    std::array<Recent, std::size_t(1) << recentBitsCM> recentM{};
};

struct EnrichSummary {
    EnrichCounts counts;
    NetworkCounts networks;
    double seconds = 0;
    bool kept = false;   // rejected records stand in the output
    std::string stopped; // why the input was not read to its end; empty: it was

    std::string text() const;
    std::string json() const;
};

} // namespace nphost
