#include "host/fields/TimeReader.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"

#include <absl/time/time.h>
#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

namespace nphost {

namespace {

constexpr std::size_t digitsCM = 14;

// A text of which one part after the other is taken.
class Rest {
  public:
    explicit Rest(std::string_view text) : textM(text) {}

    bool empty() const { return textM.empty(); }
    bool startsWithDigit() const { return !textM.empty() && isDigit(textM.front()); }

    bool skip(char character) {
        return skipIf([character](char c) { return c == character; });
    }
    bool skip(char one, char other) {
        return skipIf([one, other](char c) { return c == one || c == other; });
    }

    template <class Condition>
    bool skipIf(Condition&& condition) {
        if (textM.empty() || !condition(textM.front()))
            return false;
        textM.remove_prefix(1);
        return true;
    }

    // Takes `count` digits, no fewer.
    bool takeDigits(char* to, std::size_t count) {
        if (textM.size() < count || !std::all_of(textM.begin(), textM.begin() + count, isDigit))
            return false;
        std::memcpy(to, textM.data(), count);
        textM.remove_prefix(count);
        return true;
    }

    // A number of two digits that is at most `most`.
    bool takePair(int& value, int most) {
        char digits[2];
        if (!takeDigits(digits, 2))
            return false;
        value = 10 * (digits[0] - '0') + (digits[1] - '0');
        return value <= most;
    }

    // At least one digit; sets the flag if any is not zero.
    bool skipDigits(bool& anyButZero) {
        bool const any = startsWithDigit();
        for (; startsWithDigit(); textM.remove_prefix(1))
            anyButZero = anyButZero || textM.front() != '0';
        return any;
    }

  private:
    std::string_view textM;
};

// Takes an ISO 8601 time apart.
class IsoTime {
  public:
    explicit IsoTime(std::string_view text) : restM(text) {}

    // False when the text is none.
    bool read() {
        return readDate() && (restM.skip('T', 't') || restM.skip(' ')) && readTime() && readOffset() && restM.empty() &&
               settle();
    }

    BAS::DateTime clock() const { return clockM; }
    std::optional<int> offset() const { return offsetM; } // seconds east of UTC

  private:
    static constexpr std::size_t monthCM = 4, dayCM = 6, hourCM = 8, minuteCM = 10, secondCM = 12;

    bool readDate() {
        if (!restM.takeDigits(&digitsM[0], 4))
            return false;
        // Either all separators or none.
        bool const extended = restM.skip('-');
        return restM.takeDigits(&digitsM[monthCM], 2) && (!extended || restM.skip('-')) &&
               restM.takeDigits(&digitsM[dayCM], 2);
    }

    bool readTime() {
        if (!restM.takeDigits(&digitsM[hourCM], 2))
            return false;
        // The form of the date does not bind that of the time.
        bool const extended = restM.skip(':');
        if (!restM.takeDigits(&digitsM[minuteCM], 2))
            return false;
        bool const hasSeconds = extended ? restM.skip(':') : restM.startsWithDigit();
        return !hasSeconds || (restM.takeDigits(&digitsM[secondCM], 2) && readFraction());
    }

    bool readFraction() { return !restM.skip('.', ',') || restM.skipDigits(fractionM); }

    bool readOffset() {
        if (restM.empty())
            return true;
        offsetM = 0;
        if (restM.skip('Z', 'z'))
            return true;
        restM.skip(' ');
        bool const west = restM.skip('-');
        int hours = 0, minutes = 0;
        if ((!west && !restM.skip('+')) || !restM.takePair(hours, 23))
            return false;
        if (!restM.empty() && (restM.skip(':'), !restM.takePair(minutes, 59)))
            return false;
        offsetM = (west ? -60 : 60) * (60 * hours + minutes);
        return true;
    }

    bool is(std::size_t position, char const* pair) const { return std::memcmp(&digitsM[position], pair, 2) == 0; }
    void put(std::size_t position, char const* pair) { std::memcpy(&digitsM[position], pair, 2); }

    // Finds out what the digits name.
    bool settle() {
        // 24:00:00 is the next day's first instant, and the only time with that hour.
        bool const endOfDay = is(hourCM, "24") && is(minuteCM, "00") && is(secondCM, "00") && !fractionM;
        if (endOfDay)
            put(hourCM, "00");
        else if (is(secondCM, "60"))
            put(secondCM, "59");
        // The ranges of month, day and hour are checked here, by the calendar that the data have.
        clockM = BAS::DateTime(std::string_view(digitsM.data(), digitsM.size()));
        if (endOfDay && clockM.isValid())
            clockM = BAS::DateTime::fromSeconds(clockM.seconds() + 86400);
        return clockM.isValid();
    }

    Rest restM;
    // Seconds that are missing stay "00".
    std::array<char, digitsCM> digitsM = {'0', '0', '0', '0', '0', '0', '0', '0', '0', '0', '0', '0', '0', '0'};
    bool fractionM = false; // one that is not zero
    std::optional<int> offsetM;
    BAS::DateTime clockM;
};

std::optional<std::int64_t> secondsOf(std::string_view text) {
    std::int64_t seconds = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (error != std::errc())
        return std::nullopt;
    Rest rest(text.substr(static_cast<std::size_t>(end - text.data())));
    bool fraction = false;
    if (!rest.empty() && (!rest.skip('.', ',') || !rest.skipDigits(fraction) || !rest.empty()))
        return std::nullopt;
    // The number is cut off towards zero, which before 1970 is a second too late.
    bool const downward = fraction && text.front() == '-' && seconds > std::numeric_limits<std::int64_t>::min();
    return downward ? seconds - 1 : seconds;
}

std::optional<std::int64_t> secondsOfMilliseconds(std::string_view text) {
    std::int64_t milliseconds = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), milliseconds);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return milliseconds / 1000 - (milliseconds % 1000 < 0 ? 1 : 0);
}

// The conversion characters of a pattern; modifiers and widths stand between them and their '%'.
template <class Conversion>
void eachConversion(std::string const& pattern, Conversion&& conversion) {
    for (std::size_t at = pattern.find('%'); at != std::string::npos; at = pattern.find('%', at + 1)) {
        at = pattern.find_first_not_of("EO*:0123456789", at + 1);
        if (at == std::string::npos)
            return;
        conversion(pattern[at]);
    }
}

bool hasConversion(std::string const& pattern, std::string_view wanted) {
    bool found = false;
    eachConversion(pattern, [&](char c) { found = found || wanted.find(c) != std::string_view::npos; });
    return found;
}

// The library's %Y takes as many digits as there are, its %E4Y four.
std::string withYearsOfFourDigits(std::string const& pattern) {
    std::string result;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        std::string_view const pair = std::string_view(pattern).substr(i, 2);
        // A pair goes together, so that the second sign of "%%Y" begins nothing.
        bool const isConversion = pair.size() == 2 && pair[0] == '%';
        result += pair == "%Y" ? std::string_view("%E4Y") : pair.substr(0, isConversion ? 2 : 1);
        i += isConversion ? 1 : 0;
    }
    return result;
}

std::optional<absl::Time> parse(std::string const& pattern, std::string_view text) {
    absl::Time time;
    std::string error;
    if (!absl::ParseTime(pattern, {text.data(), text.size()}, absl::UTCTimeZone(), &time, &error))
        return std::nullopt;
    return time;
}

// The library reads second 60 as the next minute's first. A text that says one second less with 59 in place of some 60
// meant that one.
absl::Time withoutLeapSecond(std::string const& pattern, std::string_view text, absl::Time time) {
    std::string other(text);
    for (std::size_t at = other.find("60"); at != std::string::npos; at = other.find("60", at + 1)) {
        other.replace(at, 2, "59");
        std::optional<absl::Time> const earlier = parse(pattern, other);
        if (earlier && absl::ToUnixSeconds(*earlier) == absl::ToUnixSeconds(time) - 1)
            return *earlier;
        other.replace(at, 2, "60");
    }
    return time;
}

// Whether the day of `time` comes back when the pattern has written it, and as much of the time of day as it writes.
bool tells(std::string const& pattern, absl::CivilSecond time) {
    std::string const text = absl::FormatTime(pattern, absl::FromCivil(time, absl::UTCTimeZone()), absl::UTCTimeZone());
    std::optional<absl::Time> const read = parse(pattern, text);
    if (!read)
        return false;
    absl::CivilSecond const back = absl::ToCivilSecond(*read, absl::UTCTimeZone());
    // What the pattern leaves out of the time of day is zero.
    return back == time || back == absl::CivilMinute(time) || back == absl::CivilHour(time) ||
           back == absl::CivilDay(time);
}

void checkPattern(std::string const& pattern, std::string const& shown) {
    // The library would take any name and not use it.
    if (hasConversion(pattern, "Z"))
        throw HostError("the time format '" + shortened(shown) +
                        "' has %Z, but the names of zones are not understood; write %z for an offset");
    // Two days that differ in every field, in the afternoon; and one that shows that %C is passed over, which leaves %y
    // alone.
    if (!tells(pattern, absl::CivilSecond(2003, 2, 1, 16, 5, 9)) ||
        !tells(pattern, absl::CivilSecond(1999, 12, 31, 21, 58, 47)) ||
        (hasConversion(pattern, "C") && !tells(pattern, absl::CivilSecond(2099, 12, 31, 21, 58, 47))))
        throw HostError("the time format '" + shortened(shown) +
                        "' does not tell a day and time: what it writes it cannot read back");
}

} // namespace

TimeReader::TimeReader(std::string const& format, std::string const& zone)
    : formM(formOf(format)), patternM(withYearsOfFourDigits(format)), hasLeapSecondsM(!hasConversion(format, "s")),
      zoneM(zone) {
    if (formM == Form::CLOCK_PATTERN || formM == Form::ABSOLUTE_PATTERN)
        checkPattern(patternM, format);
}

TimeReader::Form TimeReader::formOf(std::string const& format) {
    if (format == "digits")
        return Form::DIGITS;
    if (format == "iso")
        return Form::ISO;
    if (format == "seconds")
        return Form::SECONDS;
    if (format == "milliseconds")
        return Form::MILLISECONDS;
    if (format.find('%') == std::string::npos)
        throw HostError("there is no time format '" + shortened(format) +
                        "'; write digits, iso, seconds, milliseconds or a pattern like %Y-%m-%d %H:%M:%S");
    return hasConversion(format, "zs") ? Form::ABSOLUTE_PATTERN : Form::CLOCK_PATTERN;
}

std::optional<TimeReader::Reading> TimeReader::read(std::string_view text) const {
    text = trimmed(text);
    switch (formM) {
    case Form::DIGITS:
        return readDigits(text);
    case Form::ISO:
        return readIso(text);
    case Form::SECONDS:
        return atAbsolute(secondsOf(text));
    case Form::MILLISECONDS:
        return atAbsolute(secondsOfMilliseconds(text));
    default:
        return readPattern(text);
    }
}

std::optional<TimeReader::Reading> TimeReader::readDigits(std::string_view text) const {
    BAS::DateTime const clock(text);
    return clock.isValid() ? std::optional(zoneM.judge(clock)) : std::nullopt;
}

std::optional<TimeReader::Reading> TimeReader::readIso(std::string_view text) const {
    IsoTime time(text);
    if (!time.read())
        return std::nullopt;
    if (!time.offset())
        return zoneM.judge(time.clock());
    return zoneM.clockAt(static_cast<std::int64_t>(time.clock().seconds()) - TimeZone::secondsTo1970CM -
                         *time.offset());
}

std::optional<TimeReader::Reading> TimeReader::readPattern(std::string_view text) const {
    if (text.find('\0') != std::string_view::npos) // the library would stop there
        return std::nullopt;
    std::optional<absl::Time> const time = parse(patternM, text);
    if (!time)
        return std::nullopt;
    absl::Time const meant = hasLeapSecondsM ? withoutLeapSecond(patternM, text, *time) : *time;
    std::int64_t const seconds = absl::ToUnixSeconds(meant); // the ends of 64 bits for "infinite-future" and its like
    if (formM == Form::ABSOLUTE_PATTERN)
        return zoneM.clockAt(seconds);
    // Beyond them, seconds would be no instant of the data.
    constexpr auto last = static_cast<std::int64_t>(BAS::DateTime::invalidSecsCM) - TimeZone::secondsTo1970CM - 1;
    if (seconds < -TimeZone::secondsTo1970CM || seconds > last)
        return std::nullopt;
    return zoneM.judge(BAS::DateTime::fromSeconds(static_cast<std::uint64_t>(seconds + TimeZone::secondsTo1970CM)));
}

std::optional<TimeReader::Reading> TimeReader::atAbsolute(std::optional<std::int64_t> secondsSince1970) const {
    return secondsSince1970 ? zoneM.clockAt(*secondsSince1970) : std::nullopt;
}

} // namespace nphost
