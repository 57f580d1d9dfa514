// BAS::DateTime: an instant of civil time in whole seconds.
//
// Purpose: the valid-from of a record and the instant of a look-up. There is no time zone: whoever writes the data
// and whoever looks numbers up must use the same one (UTC is wise: it has no hours that happen twice).
// Units and ranges: seconds since 0001-01-01 00:00:00 in the proleptic Gregorian calendar without leap seconds
// (ISO 8601), through 9999-12-31 23:59:59. seconds() is at or above invalidSecsCM for an invalid value, which
// compares later than every valid one; all invalid values are equal. The default is invalid.
// Ownership: a value of eight bytes.
// Threads: none inside; concurrent const use is safe. Nothing reads a clock but now(), nor the TZ variable or the
// locale.
// Errors: parsing never throws; asString throws std::bad_alloc.
// Complexity: constant.
#pragma once

#include "framework/BAS/String.h"

#include <compare>
#include <cstdint>
#include <iosfwd>
#include <string_view>

namespace BAS {

class DateTime {
  public:
    static constexpr std::uint64_t invalidSecsCM = 315537897600; // 10000-01-01 00:00:00

    constexpr DateTime() noexcept = default;

    // Exactly 14 ASCII digits, YYYYMMDDHHMMSS, that name a real instant: years 0001 to 9999, the month's own days,
    // hours to 23, minutes and seconds to 59. Anything else gives an invalid value.
    explicit DateTime(String const& text) noexcept : DateTime(text.view()) {}
    explicit DateTime(char const* text) noexcept : DateTime(std::string_view(text)) {}
    explicit DateTime(std::string_view text) noexcept;

    // The instant that seconds() gives; invalidSecsCM or more gives an invalid value.
    static constexpr DateTime fromSeconds(std::uint64_t seconds) noexcept {
        DateTime result;
        result.secondsM = seconds < invalidSecsCM ? seconds : invalidSecsCM;
        return result;
    }

    // The present instant, UTC.
    static DateTime now() noexcept;

    constexpr std::uint64_t seconds() const noexcept { return secondsM; }
    constexpr bool isValid() const noexcept { return secondsM < invalidSecsCM; }

    // The pattern with %Y (four digits), %m, %d, %H, %M, %S (two digits each) and %% replaced; every other character
    // stays. An invalid value gives "INVALID".
    String asString(String const& pattern) const;

    // Writes the 14 digits YYYYMMDDHHMMSS of a valid value to `to`, which has room for them.
    void toDigits(char* to) const noexcept;

    friend constexpr bool operator==(DateTime, DateTime) noexcept = default;
    friend constexpr auto operator<=>(DateTime, DateTime) noexcept = default;

  private:
    std::uint64_t secondsM = invalidSecsCM;
};

// The 14 digits YYYYMMDDHHMMSS, or "INVALID".
std::ostream& operator<<(std::ostream& out, DateTime const& dateTime);

} // namespace BAS
