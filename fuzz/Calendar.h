// Instants by the standard library's calendar, against which BAS::DateTime is compared.
#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace npfuzz {

inline constexpr std::chrono::sys_days YEAR_ONE = std::chrono::year(1) / 1 / 1;

// Seconds since year one of 14 digits YYYYMMDDHHMMSS; nothing for any other text and for no real instant.
inline std::optional<std::uint64_t> secondsOf(std::string_view text) {
    if (text.size() != 14 || !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return std::nullopt;
    auto const number = [text](std::size_t begin, std::size_t length) {
        int value = 0;
        std::from_chars(text.data() + begin, text.data() + begin + length, value);
        return value;
    };
    std::chrono::year_month_day const day(std::chrono::year(number(0, 4)),
                                          std::chrono::month(static_cast<unsigned>(number(4, 2))),
                                          std::chrono::day(static_cast<unsigned>(number(6, 2))));
    if (!day.ok() || number(0, 4) < 1 || number(8, 2) > 23 || number(10, 2) > 59 || number(12, 2) > 59)
        return std::nullopt;
    std::chrono::seconds const since = std::chrono::sys_days(day) - YEAR_ONE + std::chrono::hours(number(8, 2)) +
                                       std::chrono::minutes(number(10, 2)) + std::chrono::seconds(number(12, 2));
    return static_cast<std::uint64_t>(since.count());
}

// Year, month, day, hour, minute, second as texts of four and of two digits.
inline std::array<std::string, 6> fieldsOf(std::uint64_t seconds) {
    auto const instant = std::chrono::sys_seconds(YEAR_ONE) + std::chrono::seconds(static_cast<std::int64_t>(seconds));
    auto const midnight = std::chrono::floor<std::chrono::days>(instant);
    std::chrono::year_month_day const day(midnight);
    std::chrono::hh_mm_ss<std::chrono::seconds> const time(instant - midnight);
    auto const digits = [](int width, long value) {
        char text[24];
        std::snprintf(text, sizeof text, "%0*ld", width, value);
        return std::string(text);
    };
    return {digits(4, int(day.year())),      digits(2, unsigned(day.month())),  digits(2, unsigned(day.day())),
            digits(2, time.hours().count()), digits(2, time.minutes().count()), digits(2, time.seconds().count())};
}

inline std::string fourteenDigits(std::uint64_t seconds) {
    std::string text;
    for (std::string const& field : fieldsOf(seconds))
        text += field;
    return text;
}

} // namespace npfuzz
