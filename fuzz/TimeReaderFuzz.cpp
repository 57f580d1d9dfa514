// Fuzz target: reading the times of foreign files, against models by regular expressions and the standard library's
// calendar.
//
// Input: the first line is a format, the second begins with a digit that chooses a zone, each further one is a time.
// Every time is read by the format, and as iso, digits, seconds and milliseconds in UTC.
#include "fuzz/Calendar.h"
#include "fuzz/Fuzz.h"
#include "host/base/HostError.h"
#include "host/fields/TimeReader.h"

#include <regex.h>
#include <sstream>

namespace {

using npfuzz::checkEqual;
using nphost::TimeReader;

constexpr std::size_t LONGEST_TIME = 64;
constexpr std::array ZONES = {"UTC",
                              "Europe/Berlin",
                              "America/New_York",
                              "Australia/Lord_Howe",
                              "Pacific/Apia",
                              "Africa/Casablanca",
                              "Asia/Kathmandu",
                              "America/Caracas",
                              "Etc/GMT+5",
                              "America/Argentina/San_Luis"};
constexpr std::int64_t UNIX_EPOCH = 62135596800;

std::string streamed(BAS::DateTime instant) {
    std::ostringstream out;
    out << instant;
    return out.str();
}

std::string readingOf(TimeReader const& reader, std::string const& text) {
    std::optional<TimeReader::Reading> const reading = reader.read(text);
    return reading ? streamed(reading->instant) : "-";
}

std::string textOfSeconds(std::optional<std::int64_t> seconds) {
    bool const inRange = seconds && *seconds >= 0 && *seconds < static_cast<std::int64_t>(BAS::DateTime::invalidSecsCM);
    return inRange ? npfuzz::fourteenDigits(static_cast<std::uint64_t>(*seconds)) : "-";
}

std::string trimmed(std::string const& text) {
    std::size_t const begin = text.find_first_not_of(" \t");
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

// A POSIX extended regular expression for whole texts.
class Pattern {
  public:
    explicit Pattern(char const* expression) {
        if (regcomp(&compiledM, expression, REG_EXTENDED) != 0)
            std::abort();
    }
    Pattern(Pattern const&) = delete;
    Pattern& operator=(Pattern const&) = delete;
    ~Pattern() { regfree(&compiledM); }

    // The whole and the parts in parentheses, empty where they are not there; nothing if the text does not match.
    std::optional<std::vector<std::string>> parts(std::string const& text) const {
        std::vector<regmatch_t> places(compiledM.re_nsub + 1);
        places[0] = {0, static_cast<regoff_t>(text.size())}; // a NUL does not end the text
        if (regexec(&compiledM, text.c_str(), places.size(), places.data(), REG_STARTEND) != 0)
            return std::nullopt;
        std::vector<std::string> result;
        for (regmatch_t const& place : places)
            result.push_back(place.rm_so < 0 ? std::string()
                                             : text.substr(static_cast<std::size_t>(place.rm_so),
                                                           static_cast<std::size_t>(place.rm_eo - place.rm_so)));
        return result;
    }

  private:
    regex_t compiledM;
};

bool hasOtherThanZeros(std::string const& fraction) {
    return fraction.find_first_of("123456789") != std::string::npos;
}

std::string isoModel(std::string const& text) {
    enum : std::size_t {
        YEAR = 1,
        MONTH = 3,
        DAY,
        HOUR,
        MINUTE = 7,
        SECOND = 9,
        FRACTION,
        SIGN = 12,
        HOURS,
        MINUTES = 15
    };
    static Pattern const whole("^([0-9]{4})(-?)([0-9]{2})\\2([0-9]{2})[Tt ]"
                               "([0-9]{2})(:?)([0-9]{2})(\\6([0-9]{2})([.,][0-9]+)?)?"
                               "([Zz]| ?([-+])([01][0-9]|2[0-3])(:?([0-5][0-9]))?)?$");
    std::optional<std::vector<std::string>> const parts = whole.parts(text);
    if (!parts)
        return "-";
    std::vector<std::string> const& part = *parts;
    std::string seconds = part[SECOND].empty() ? "00" : part[SECOND];
    bool const endOfDay = part[HOUR] + part[MINUTE] + seconds == "240000" && !hasOtherThanZeros(part[FRACTION]);
    if (seconds == "60")
        seconds = "59";
    std::optional<std::uint64_t> const clock = npfuzz::secondsOf(
        part[YEAR] + part[MONTH] + part[DAY] + (endOfDay ? "000000" : part[HOUR] + part[MINUTE] + seconds));
    if (!clock)
        return "-";
    std::int64_t const reached = static_cast<std::int64_t>(*clock) + (endOfDay ? 86400 : 0);
    if (textOfSeconds(reached) == "-" || part[SIGN].empty())
        return textOfSeconds(reached);
    int const offset = std::stoi(part[HOURS]) * 3600 + (part[MINUTES].empty() ? 0 : std::stoi(part[MINUTES]) * 60);
    return textOfSeconds(reached + (part[SIGN] == "-" ? offset : -offset));
}

// Up to 15 digits are far beyond the year 9999.
std::string secondsModel(std::string const& text, std::int64_t unit) {
    enum : std::size_t { MINUS = 1, NUMBER = 3, FRACTION };
    static Pattern const whole("^(-?)(0*)([0-9]{1,15})([.,][0-9]+)?$");
    std::optional<std::vector<std::string>> const parts = whole.parts(text);
    if (!parts || (unit > 1 && !(*parts)[FRACTION].empty()))
        return "-";
    std::int64_t const number = std::stoll((*parts)[NUMBER]);
    std::int64_t const upward = number / unit + (number % unit != 0 || hasOtherThanZeros((*parts)[FRACTION]) ? 1 : 0);
    return textOfSeconds(UNIX_EPOCH + ((*parts)[MINUS].empty() ? number / unit : -upward));
}

void checkInUtc(std::string const& text) {
    static TimeReader const iso("iso", "UTC"), digits("digits", "UTC"), seconds("seconds", "UTC"),
        milliseconds("milliseconds", "UTC");
    std::string const bare = trimmed(text);
    checkEqual("the iso reading", text, readingOf(iso, text), isoModel(bare));
    std::optional<std::uint64_t> const fourteen = npfuzz::secondsOf(bare);
    checkEqual("the digits' reading", text, readingOf(digits, text), fourteen ? std::string_view(bare) : "-");
    checkEqual("the seconds' reading", text, readingOf(seconds, text), secondsModel(bare, 1));
    checkEqual("the milliseconds' reading", text, readingOf(milliseconds, text), secondsModel(bare, 1000));
}

// What was read is an instant that clocks do show.
void checkReading(std::string const& text, TimeReader const& reader, nphost::TimeZone const& zone) {
    std::optional<TimeReader::Reading> const reading = reader.read(text);
    if (!reading)
        return;
    checkEqual("validity", text, reading->instant.isValid(), true);
    nphost::TimeZone::Reading const again = zone.judge(reading->instant);
    checkEqual("the possible instant", text, streamed(again.instant), streamed(reading->instant));
}

std::optional<TimeReader> readerOf(std::string const& format, std::string const& zone) {
    try {
        return TimeReader(format, zone);
    } catch (nphost::HostError const&) {
        return std::nullopt;
    }
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::vector<std::string> lines = npfuzz::linesOf(npfuzz::textOf(data, size));
    lines.resize(std::max<std::size_t>(lines.size(), 2));
    std::size_t const chosen = lines[1].empty() ? 0 : static_cast<unsigned char>(lines[1].front()) % ZONES.size();
    std::optional<TimeReader> const reader = readerOf(lines[0], ZONES[chosen]);
    nphost::TimeZone const zone(ZONES[chosen]);
    for (std::size_t i = 2; i < lines.size(); ++i) {
        std::string const text = lines[i].substr(0, LONGEST_TIME);
        checkInUtc(text);
        if (reader)
            checkReading(text, *reader, zone);
    }
    return 0;
}
