#include "framework/BAS/DateTime.h"

#include <chrono>
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

constexpr std::uint64_t daysSinceYearOne(unsigned year, unsigned month, unsigned day) {
    unsigned const y = month <= 2 ? year - 1 : year;
    unsigned const monthFromMarch = month > 2 ? month - 3 : month + 9;
    unsigned const dayOfYear = (153 * monthFromMarch + 2) / 5 + day - 1;
    return 365ULL * y + y / 4 - y / 100 + y / 400 + dayOfYear - marchToJanuary;
}
static_assert(daysSinceYearOne(1, 1, 1) == 0);
static_assert(daysSinceYearOne(10000, 1, 1) * secondsPerDay == DateTime::invalidSecsCM);

constexpr Civil civil(std::uint64_t seconds) {
    std::uint64_t const days = seconds / secondsPerDay + marchToJanuary;
    auto const time = static_cast<unsigned>(seconds % secondsPerDay);
    auto const era = static_cast<unsigned>(days / daysPer400Years);
    auto const dayOfEra = static_cast<unsigned>(days % daysPer400Years);
    unsigned const yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    unsigned const dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    unsigned const monthFromMarch = (5 * dayOfYear + 2) / 153;
    Civil result;
    result.day = dayOfYear - (153 * monthFromMarch + 2) / 5 + 1;
    result.month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
    result.year = era * 400 + yearOfEra + (result.month <= 2 ? 1 : 0);
    result.hour = time / 3600;
    result.minute = time / 60 % 60;
    result.second = time % 60;
    return result;
}

constexpr unsigned daysInMonth(unsigned year, unsigned month) {
    constexpr unsigned days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    bool const leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : days[month - 1];
}

unsigned number(std::string_view digits) {
    unsigned result = 0;
    for (char const digit : digits)
        result = 10 * result + static_cast<unsigned>(digit - '0');
    return result;
}

void putDigits(char* to, unsigned value, unsigned count) {
    while (count-- > 0) {
        to[count] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
}

// Appends what the conversion character stands for; false when it is none of ours.
bool appendConversion(std::string& text, Civil const& when, char conversion) {
    char digits[4];
    unsigned count = 2;
    switch (conversion) {
    case 'Y':
        count = 4;
        putDigits(digits, when.year, count);
        break;
    case 'm':
        putDigits(digits, when.month, count);
        break;
    case 'd':
        putDigits(digits, when.day, count);
        break;
    case 'H':
        putDigits(digits, when.hour, count);
        break;
    case 'M':
        putDigits(digits, when.minute, count);
        break;
    case 'S':
        putDigits(digits, when.second, count);
        break;
    case '%':
        text += '%';
        return true;
    default:
        return false;
    }
    text.append(digits, count);
    return true;
}

} // namespace

DateTime::DateTime(std::string_view text) noexcept {
    if (text.size() != digitsInText)
        return;
    for (char const character : text)
        if (character < '0' || character > '9')
            return;
    unsigned const year = number(text.substr(0, 4));
    unsigned const month = number(text.substr(4, 2));
    unsigned const day = number(text.substr(6, 2));
    unsigned const hour = number(text.substr(8, 2));
    unsigned const minute = number(text.substr(10, 2));
    unsigned const second = number(text.substr(12, 2));
    if (year == 0 || month == 0 || month > 12 || day == 0 || day > daysInMonth(year, month))
        return;
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
    putDigits(to, when.year, 4);
    unsigned const pairs[] = {when.month, when.day, when.hour, when.minute, when.second};
    for (unsigned i = 0; i < 5; ++i)
        putDigits(to + 4 + 2UL * i, pairs[i], 2);
}

std::ostream& operator<<(std::ostream& out, DateTime const& dateTime) {
    if (!dateTime.isValid())
        return out << "INVALID";
    char digits[digitsInText];
    dateTime.toDigits(digits);
    return out << std::string_view(digits, sizeof digits);
}

} // namespace BAS
