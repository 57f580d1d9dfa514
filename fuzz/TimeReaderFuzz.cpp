// Fuzz target: reading the times of foreign files, against models by regular expression and the standard library's
// calendar.
//
// Input: the first line is a format, the second begins with a digit that chooses a zone, each further one is a time.
// Every time is read by the format, and as iso, digits, seconds and milliseconds in UTC.
#include "fuzz/Calendar.h"
#include "fuzz/Fuzz.h"
#include "host/HostError.h"
#include "host/TimeReader.h"

#include <regex>
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

std::string isoModel(std::string const& text) {
    static std::regex const whole("(\\d{4})(-?)(\\d\\d)\\2(\\d\\d)[Tt ]"
                                  "(\\d\\d)(:?)(\\d\\d)(?:\\6(\\d\\d)([.,]\\d+)?)?"
                                  "(?:[Zz]| ?([-+])([01]\\d|2[0-3])(?::?([0-5]\\d))?)?");
    std::smatch part;
    if (!std::regex_match(text, part, whole))
        return "-";
    std::string const day = part.str(1) + part.str(3) + part.str(4);
    std::string seconds = part[8].matched ? part.str(8) : "00";
    bool const endOfDay =
        part.str(5) + part.str(7) + seconds == "240000" && part.str(9).find_first_of("123456789") == std::string::npos;
    if (seconds == "60" && std::stoi(part.str(7)) % 15 == 14)
        seconds = "59";
    std::optional<std::uint64_t> const clock =
        npfuzz::secondsOf(day + (endOfDay ? "000000" : part.str(5) + part.str(7) + seconds));
    if (!clock)
        return "-";
    std::int64_t const reached = static_cast<std::int64_t>(*clock) + (endOfDay ? 86400 : 0);
    if (textOfSeconds(reached) == "-" || !part[10].matched)
        return textOfSeconds(reached);
    int const offset = std::stoi(part.str(11)) * 3600 + (part[12].matched ? std::stoi(part.str(12)) * 60 : 0);
    return textOfSeconds(reached + (part.str(10) == "-" ? offset : -offset));
}

// Up to 15 digits are far beyond the year 9999.
std::string secondsModel(std::string const& text, std::int64_t unit) {
    static std::regex const whole("(-?)(0*)(\\d{1,15})([.,](\\d+))?");
    std::smatch part;
    if (!std::regex_match(text, part, whole) || (unit > 1 && part[4].matched))
        return "-";
    std::int64_t const number = std::stoll(part.str(3));
    bool const fraction = part.str(5).find_first_of("123456789") != std::string::npos;
    bool const negative = part.str(1) == "-";
    std::int64_t const downward = number / unit + (number % unit != 0 || fraction ? 1 : 0);
    return textOfSeconds(UNIX_EPOCH + (negative ? -downward : number / unit));
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
