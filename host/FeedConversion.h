// nphost::FeedConversion: makes data lines of the records of an operator's feed, and says why of others it cannot.
//
// Purpose: number, valid-from and network as the feed writes them become a line of a data file (docs/data-format.md).
// - A number is brought into stored form, or, without a NumberForm, must be digits that may follow a plus; visual
//   separators go.
// - A valid-from becomes the clock time of the data's zone; doubtful ones are counted.
// - Blanks around a network's name go, those inside become underscores (FeedNetworks.h).
// - A record whose number has one at the same instant already is REPEATED with the same network, and refused with
//   another.
// Units and ranges: numbers to longestNumberCM characters, network identifiers to longestNetworkCM bytes: the data know
// no bounds, but what is longer is no number and no name.
// Ownership: owns its parts but the NumberForm; remembers every record (SeenRecords.h).
// Threads: one at a time.
// Errors: HostError when two networks would become one; std::bad_alloc.
// Complexity: linear in the record.
#pragma once

#include "host/FeedNetworks.h"
#include "host/NumberForm.h"
#include "host/Record.h"
#include "host/SeenRecords.h"
#include "host/TimeReader.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace nphost {

// Why a record is refused.
enum class Refusal : std::uint8_t {
    FIELD_COUNT,
    BROKEN_QUOTES,
    LONG_RECORD,
    NO_NUMBER,
    UNREADABLE_NUMBER,
    DECIMAL_NUMBER,
    NO_COUNTRY_CODE,
    NOT_DIGITS,
    LONG_NUMBER,
    BAD_TIME,
    NO_NETWORK,
    LONG_NETWORK,
    CONTROL_CHARACTER,
    OTHER_NETWORK,
};
constexpr std::size_t refusalsCM = 14;

// One word with hyphens, and a sentence without its full stop.
char const* nameOf(Refusal refusal);
char const* sentenceOf(Refusal refusal);

Refusal refusalOf(Problem problem);

class FeedConversion {
  public:
    static constexpr std::size_t longestNumberCM = 40;
    static constexpr std::size_t longestNetworkCM = 200;

    enum class Outcome { CONVERTED, REPEATED, REFUSED };
    struct Counts {
        std::uint64_t converted = 0;
        std::uint64_t repeated = 0;
        std::uint64_t ambiguous = 0; // of those converted
        std::uint64_t impossible = 0;
    };

    // Without a form, which is borrowed, numbers are taken as they stand.
    FeedConversion(TimeReader times, NumberForm const* form);

    // Appends the data line with its newline to `out`, if the record is CONVERTED.
    Outcome convert(std::string_view number, std::string_view validFrom, std::string_view network, std::string& out);

    // Why the latest record was refused, and the part of it that was wrong.
    Refusal refusal() const { return refusalM; }
    std::string const& subject() const { return subjectM; }

    Counts const& counts() const { return countsM; }
    // Networks of those converted.
    std::size_t networks() const { return static_cast<std::size_t>(std::count(usedM.begin(), usedM.end(), true)); }

  private:
    bool readNumber(std::string_view text);
    bool readNetwork(std::string_view text);
    bool refuse(Refusal refusal, std::string_view subject);
    Outcome keep(TimeReader::Reading const& time, std::string& out);
    void append(BAS::DateTime validFrom, std::string& out) const;

    TimeReader timesM;
    NumberForm const* formM;
    FeedNetworks networksM;
    SeenRecords seenM;
    Counts countsM;
    std::vector<bool> usedM; // by the number of a network: it has a record

    BAS::String numberM; // of the present record, as the next
    std::uint32_t networkM = 0;
    Refusal refusalM = Refusal::FIELD_COUNT;
    std::string subjectM;
};

} // namespace nphost
