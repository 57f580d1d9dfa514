// nphost::DataClock: the clock by which the data tell time.
//
// Purpose: instants in the data are clock times of one zone, which [host] names:
//
//     dataZone = "Europe/London"   # an IANA name; default: UTC
//
// "Now" is what that zone's clocks show; an instant with an offset is turned into their time; an instant is shown with
// their offset.
// Units: instants are of the data's clock, in whole seconds, but where UTC is said.
// Ownership: a value. Threads: constant, so by any.
// Errors: HostError for a zone that is none; std::bad_alloc.
// Complexity: logarithmic in the zone's changes; constant for UTC.
// Source: RFC 3339; the system's zone database.
#pragma once

#include "framework/BAS/DateTime.h"
#include "host/config/Configuration.h"
#include "host/fields/TimeReader.h"

#include <optional>
#include <string>
#include <string_view>

namespace nphost {

class DataClock {
  public:
    struct Settings {
        std::string zone = "UTC";

        static void declare(Section& host, Configuration& configuration);
    };

    explicit DataClock(std::string zone = "UTC");
    explicit DataClock(Configuration const& configuration) : DataClock(configuration.of<Settings>().zone) {}

    std::string const& zone() const { return zoneNameM; }
    BAS::DateTime now() const noexcept { return at(BAS::DateTime::now()); }
    // What the clock shows then; a valid instant.
    BAS::DateTime at(BAS::DateTime utc) const noexcept;
    // From when on it has shown that, in UTC (TimeZone::beginOf); a valid instant.
    BAS::DateTime toUtc(BAS::DateTime at) const noexcept;
    // 14 digits or ISO 8601 (TimeReader.h); without an offset they are taken as they stand. Of any other text the
    // instant is invalid.
    BAS::DateTime read(std::string_view text) const noexcept;
    // "2026-01-31T12:00:00+01:00" of a valid instant; of a clock time that came twice, the first.
    static constexpr std::size_t isoLengthCM = 25;
    void writeIso(char* out, BAS::DateTime at) const noexcept;
    void appendIso(std::string& out, BAS::DateTime at) const;

  private:
    std::string zoneNameM;
    TimeZone zoneM;
    TimeReader isoM;
};

// The instant of an option, or `otherwise` if it is not given. HostError for one that is none; an empty one is given: a
// script's unset variable.
BAS::DateTime instantOf(std::optional<std::string> const& option, DataClock const& clock, BAS::DateTime otherwise);

} // namespace nphost
