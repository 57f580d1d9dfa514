// nphost::TimeReader: reads the times of foreign files and turns them into instants of the data.
//
// Purpose: operators' feeds and call records write time in many forms; the data know one, the clock time of one zone
// in whole seconds. The formats:
//   digits        YYYYMMDDHHMMSS
//   iso           ISO 8601 and RFC 3339: date, 'T' or a blank, time, and an offset if there is one; below
//   seconds       since 1970-01-01 00:00:00 UTC, perhaps negative, perhaps with a fraction
//   milliseconds  the same without a fraction
//   a pattern     whatever has a '%': strptime's conversions, of which %Y takes exactly four digits, and %E*S, seconds
//                 with a fraction. %z, %Ez and %s make the time absolute. A pattern must tell the day; what it leaves
//                 out of the time of day is zero.
// iso: basic or extended. Seconds may be missing; a fraction of a second may follow '.' or ','. The offset is Z, +hh,
// +hhmm or +hh:mm, and a blank may stand before it. 24:00:00 is the next day's beginning. Week dates, ordinal dates and
// dates without a time are not read; %Y-%m-%d serves for the last. Second 60 is read as 59 by iso and by patterns,
// because the data have no leap seconds; to digits, which are the data's own form, it is no time.
// Blanks and tabs around a time are passed over. A fraction of a second is dropped: the second that has begun counts.
// Zones: a time without an offset is the clock time of the zone, which is the data's; an absolute time is turned into
// it. TimeZone.h says what becomes of times that a change of the clocks makes doubtful: they are marked, so that
// callers can count them.
// Ownership: a value.
// Threads: none inside; any number may read at once.
// Errors: HostError for a format or zone that is none, in one line; reading throws at most std::bad_alloc, and only
// with a pattern.
// Complexity: constant; a pattern allocates and is an order of magnitude slower.
#pragma once

#include "host/fields/TimeZone.h"

#include <optional>
#include <string>
#include <string_view>

namespace nphost {

class TimeReader {
  public:
    using Doubt = TimeZone::Doubt;
    using Reading = TimeZone::Reading;

    TimeReader(std::string const& format, std::string const& zone);

    // Nothing when the text is no time of the format, or outside the years 1 to 9999.
    std::optional<Reading> read(std::string_view text) const;

  private:
    enum class Form { DIGITS, ISO, SECONDS, MILLISECONDS, CLOCK_PATTERN, ABSOLUTE_PATTERN };

    static Form formOf(std::string const& format);

    std::optional<Reading> readDigits(std::string_view text) const;
    std::optional<Reading> readIso(std::string_view text) const;
    std::optional<Reading> readPattern(std::string_view text) const;
    std::optional<Reading> atAbsolute(std::optional<std::int64_t> secondsSince1970) const;

    Form formM;
    std::string patternM;
    bool hasLeapSecondsM; // a pattern with %s has none, and may end in 60
    TimeZone zoneM;
};

} // namespace nphost
