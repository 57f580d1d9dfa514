// nphost::TimeZone: civil time of one zone, and what its clock changes do to it.
//
// Purpose: instants in the data have no zone and are taken to be the clock time of one. This turns absolute times into
// that clock time, and says which clock times a change of the clocks makes doubtful:
// - AMBIGUOUS: clocks were put back, the time came twice. It stays as it stands; in the data it means both.
// - IMPOSSIBLE: clocks were put forward and left the time out. It is moved forward by as much as they were: 02:30
//   becomes 03:30.
// An absolute time within an hour that came twice is AMBIGUOUS too: its clock time no longer says which.
// Units and ranges: BAS::DateTime, seconds; absolute times are seconds since 1970-01-01 00:00:00 UTC without leap
// seconds. The rules of a zone that stand today are taken to last for 400 years.
// Ownership: a value; the zone's changes are read at construction.
// Threads: none inside; concurrent use is safe.
// Errors: HostError for a zone that is none; std::bad_alloc.
// Source: the system's zone database (tzdata).
// Complexity: logarithmic in the zone's changes, some hundred; constant for one without. No allocation.
#pragma once

#include "framework/BAS/DateTime.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace nphost {

class TimeZone {
  public:
    enum class Doubt { NONE, AMBIGUOUS, IMPOSSIBLE };
    struct Reading {
        BAS::DateTime instant;
        Doubt doubt;
    };

    // 0001-01-01 to 1970-01-01.
    static constexpr std::int64_t secondsTo1970CM = 62135596800;

    // An IANA name: "Europe/Paris", "UTC".
    explicit TimeZone(std::string const& name);

    // What a clock of the zone shows at the absolute time; nothing outside the years 1 to 9999.
    std::optional<Reading> clockAt(std::int64_t secondsSince1970) const noexcept;

    // The same for what a clock of the zone is said to have shown; `clock` is valid.
    Reading judge(BAS::DateTime clock) const noexcept;

    // Seconds east of UTC when a clock of the zone showed that; the first time, if it came twice. `clock` is valid.
    std::int64_t offsetOf(BAS::DateTime clock) const noexcept;

    // From when on a clock of the zone has shown that or more: the first time, if it came twice, and the change that
    // left it out, if it never came. In seconds since 1970; `clock` is valid.
    std::int64_t beginOf(BAS::DateTime clock) const noexcept;

  private:
    struct Change {
        std::int64_t at;     // seconds since 1970
        std::int64_t offset; // from then on, seconds east of UTC
    };
    // Clock times that came twice or never.
    struct Doubtful {
        std::uint64_t begin; // as BAS::DateTime::seconds()
        std::uint64_t end;   // exclusive
        Doubt doubt;
    };

    void addChange(std::int64_t at, std::int64_t before, std::int64_t after);
    std::int64_t offsetAt(std::int64_t secondsSince1970) const noexcept;

    std::int64_t firstOffsetM = 0; // before all changes
    std::vector<Change> changesM;  // ascending, as the next
    std::vector<Doubtful> doubtfulM;
};

} // namespace nphost
