#include "framework/BAS/DateTime.h"

#include <array>
#include <chrono>
#include <cstring>
#include <ostream>

namespace BAS {

namespace {

constexpr std::size_t digitsInText = 14;
constexpr unsigned secondsPerDay = 86400;
constexpr unsigned daysPer400Years = 146097;

// Years are counted from March, so that the leap day ends its year and month lengths repeat every five months.
constexpr std::uint64_t marchToJanuary = 306; // days from 0000-03-01 to 0001-01-01

struct Civil {
    unsigned year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
};

// Months and leap years come in no order that a processor could foresee: no branches.
constexpr bool isLeap(unsigned year) {
    unsigned const mask = year % 25 == 0 ? 15 : 3; // a multiple of 25 is one of 100 if it is one of 4
    return (year & mask) == 0;
}
static_assert(isLeap(2000) && !isLeap(1900) && isLeap(2024) && !isLeap(2025) && !isLeap(2023));

constexpr std::uint64_t daysSinceYearOne(unsigned year, unsigned month, unsigned day) {
    constexpr std::uint16_t daysBefore[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
    unsigned const y = year - 1;
    unsigned const leapDay = static_cast<unsigned>(month > 2) & static_cast<unsigned>(isLeap(year));
    return 365ULL * y + y / 4 - y / 100 + y / 400 + daysBefore[month - 1] + leapDay + day - 1;
}
static_assert(daysSinceYearOne(1, 1, 1) == 0);
static_assert(daysSinceYearOne(10000, 1, 1) * secondsPerDay == DateTime::invalidSecsCM);

// As C. Neri and L. Schneider have it ("Euclidean affine functions and their application to calendar algorithms",
// 2022): multiplications in place of divisions.
constexpr Civil civil(std::uint64_t seconds) {
    auto const days = static_cast<unsigned>(seconds / secondsPerDay + marchToJanuary);
    auto const time = static_cast<unsigned>(seconds % secondsPerDay);
    unsigned const century = (4 * days + 3) / daysPer400Years;
    unsigned const dayOfCentury = (4 * days + 3) % daysPer400Years | 3; // times four, and three
    std::uint64_t const scaledYear = std::uint64_t{2939745} * dayOfCentury;
    auto const yearOfCentury = static_cast<unsigned>(scaledYear >> 32);
    unsigned const dayOfYear = static_cast<unsigned>(scaledYear & 0xffffffff) / 2939745 / 4; // from March
    unsigned const scaledMonth = 2141 * dayOfYear + 197913;
    unsigned const isNextYear = dayOfYear >= marchToJanuary ? 1 : 0;
    Civil result;
    result.day = (scaledMonth & 0xffff) / 2141 + 1;
    result.month = (scaledMonth >> 16) - 12 * isNextYear;
    result.year = century * 100 + yearOfCentury + isNextYear;
    result.hour = time / 3600;
    result.minute = time / 60 % 60;
    result.second = time % 60;
    return result;
}

constexpr unsigned daysInMonth(unsigned year, unsigned month) {
    constexpr std::uint8_t days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return days[month - 1] + (static_cast<unsigned>(month == 2) & static_cast<unsigned>(isLeap(year)));
}

// Eight characters as one word, the first in the lowest byte.
std::uint64_t wordAt(char const* text) {
    std::uint64_t word = 0;
    std::memcpy(&word, text, sizeof word);
    return word;
}

// Whether all bytes are '0' (0x30) to '9' (0x39): the high half is 3, also with 6 added. A byte that is not may carry
// into the next one but has failed by then.
// Eight characters at a step: a load reads two such words a line.
constexpr bool areDigits(std::uint64_t word) {
    constexpr std::uint64_t highHalves = 0xF0F0F0F0F0F0F0F0, threes = 0x3030303030303030, sixes = 0x0606060606060606;
    return (word & highHalves) == threes && ((word + sixes) & highHalves) == threes;
}

// The four two-digit numbers of eight digits, one every 16 bits.
constexpr std::uint64_t pairsOf(std::uint64_t digits) {
    std::uint64_t const values = digits & 0x0F0F0F0F0F0F0F0F;
    return (10 * values + (values >> 8)) & 0x00FF00FF00FF00FF;
}

constexpr unsigned pairAt(std::uint64_t pairs, unsigned position) {
    return pairs >> (16 * position) & 0xFF;
}

// "00", "01" to "99" in a row.
constexpr std::array<char, 200> twoDigits = [] {
    std::array<char, 200> digits{};
    for (unsigned i = 0; i < digits.size(); ++i)
        digits[i] = static_cast<char>('0' + (i % 2 == 0 ? i / 20 : i / 2 % 10));
    return digits;
}();

// From the table, because a listing of millions of records writes seven pairs a line.
void putPair(char* to, unsigned value) {
    std::memcpy(to, &twoDigits[2UL * value], 2);
}

void putYear(char* to, unsigned year) {
    putPair(to, year / 100);
    putPair(to + 2, year % 100);
}

// Appends what the conversion character stands for; false when it is none of ours.
bool appendConversion(std::string& text, Civil const& when, char conversion) {
    char digits[4];
    unsigned count = 2;
    switch (conversion) {
    case 'Y':
        count = 4;
        putYear(digits, when.year);
        break;
    case 'm':
        putPair(digits, when.month);
        break;
    case 'd':
        putPair(digits, when.day);
        break;
    case 'H':
        putPair(digits, when.hour);
        break;
    case 'M':
        putPair(digits, when.minute);
        break;
    case 'S':
        putPair(digits, when.second);
        break;
    case '%':
        text += '%';
        return true;
    // Left as it is written: a pattern with a conversion of somebody else's must show it.
    default:
        return false;
    }
    text.append(digits, count);
    return true;
}

} // namespace

DateTime::DateTime(std::string_view text) noexcept {
    // Every way out of here leaves the invalid value of the default: a text never names an instant in part.
    if (text.size() != digitsInText)
        return;
    std::uint64_t const date = wordAt(text.data());                              // YYYYMMDD
    std::uint64_t const time = wordAt(text.data() + digitsInText - sizeof date); // DDHHMMSS
    if (!areDigits(date) || !areDigits(time))
        return;
    unsigned const year = 100 * pairAt(pairsOf(date), 0) + pairAt(pairsOf(date), 1);
    unsigned const month = pairAt(pairsOf(date), 2);
    unsigned const day = pairAt(pairsOf(date), 3);
    unsigned const hour = pairAt(pairsOf(time), 1);
    unsigned const minute = pairAt(pairsOf(time), 2);
    unsigned const second = pairAt(pairsOf(time), 3);
    if (year == 0 || month == 0 || month > 12 || day == 0 || day > daysInMonth(year, month))
        return;
    // No leap second: it would be the same instant as the next minute's first.
    if (hour > 23 || minute > 59 || second > 59)
        return;
    secondsM = daysSinceYearOne(year, month, day) * secondsPerDay + hour * 3600UL + minute * 60UL + second;
}

DateTime DateTime::now() noexcept {
    constexpr std::uint64_t unixEpoch = daysSinceYearOne(1970, 1, 1) * secondsPerDay;
    auto const sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    DateTime result;
    result.secondsM =
        unixEpoch + static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch).count());
    return result;
}

String DateTime::asString(String const& pattern) const {
    if (!isValid())
        return String("INVALID");
    Civil const when = civil(secondsM);
    std::string text;
    std::string_view const from = pattern.view();
    // A percent sign at the end, or before what is no conversion, stands for itself.
    for (std::size_t i = 0; i < from.size(); ++i) {
        if (from[i] == '%' && i + 1 < from.size() && appendConversion(text, when, from[i + 1]))
            ++i;
        else
            text += from[i];
    }
    return String(std::move(text));
}

void DateTime::toDigits(char* to) const noexcept {
    Civil const when = civil(secondsM);
    putYear(to, when.year);
    putPair(to + 4, when.month);
    putPair(to + 6, when.day);
    putPair(to + 8, when.hour);
    putPair(to + 10, when.minute);
    putPair(to + 12, when.second);
}

std::ostream& operator<<(std::ostream& out, DateTime const& dateTime) {
    if (!dateTime.isValid())
        return out << "INVALID";
    char digits[digitsInText];
    dateTime.toDigits(digits);
    return out << std::string_view(digits, sizeof digits);
}

} // namespace BAS
