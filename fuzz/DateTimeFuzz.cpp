// Fuzz target: parsing and formatting of BAS::DateTime against the standard library's calendar.
//
// Input: the first line is a date-time text, the second another, the third a pattern for asString. The first
// eight bytes are also taken as a number of seconds, so that real instants do not have to be guessed digit by
// digit.
#include "framework/BAS/DateTime.h"
#include "fuzz/Calendar.h"
#include "fuzz/Fuzz.h"

#include <cstring>
#include <sstream>

namespace {

using npfuzz::checkEqual;

std::string replaced(std::string_view pattern, std::uint64_t seconds) {
    std::array<std::string, 6> const fields = npfuzz::fieldsOf(seconds);
    constexpr std::string_view conversions = "YmdHMS";
    std::string text;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        std::string_view const pair = pattern.substr(i, 2);
        std::size_t const which = pair.size() == 2 ? conversions.find(pair[1]) : std::string_view::npos;
        if (pair == "%%") {
            text += '%';
            ++i;
        } else if (pair[0] == '%' && which != std::string_view::npos) {
            text += fields[which];
            ++i;
        } else {
            text += pair[0];
        }
    }
    return text;
}

std::string streamed(BAS::DateTime const& instant) {
    std::ostringstream out;
    out << instant;
    return out.str();
}

void checkFormats(std::string_view subject, BAS::DateTime const& instant, std::string const& pattern) {
    bool const valid = instant.isValid();
    std::string const digits = valid ? npfuzz::fourteenDigits(instant.seconds()) : "INVALID";
    checkEqual("the streamed text", subject, streamed(instant), digits);
    checkEqual("asString of 14 digits", subject, instant.asString("%Y%m%d%H%M%S").view(), digits);
    checkEqual("asString of the pattern", pattern, instant.asString(pattern).view(),
               valid ? replaced(pattern, instant.seconds()) : "INVALID");
}

BAS::DateTime checkText(std::string const& text, std::string const& pattern) {
    BAS::DateTime const instant{BAS::String(text)};
    std::optional<std::uint64_t> const expected = npfuzz::secondsOf(text);
    checkEqual("validity", text, instant.isValid(), expected.has_value());
    if (expected) {
        checkEqual("seconds", text, instant.seconds(), *expected);
        checkEqual("round trip", text, streamed(instant), text);
    }
    checkFormats(text, instant, pattern);
    return instant;
}

void checkOrder(std::string const& text, std::string const& other, BAS::DateTime left, BAS::DateTime right) {
    // An invalid instant is later than every valid one and equal to every invalid one.
    bool const less = left.isValid() && (!right.isValid() || text < other);
    bool const equal = left.isValid() ? right.isValid() && text == other : !right.isValid();
    checkEqual("being before the other text", text, left < right, less);
    checkEqual("equality with the other text", text, left == right, equal);
}

void checkSeconds(std::string_view input, std::string const& pattern) {
    std::uint64_t seconds = 0;
    std::memcpy(&seconds, input.data(), std::min(input.size(), sizeof seconds));
    seconds %= BAS::DateTime::invalidSecsCM;
    std::string const text = npfuzz::fourteenDigits(seconds);
    checkEqual("seconds", text, checkText(text, pattern).seconds(), seconds);
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const input = npfuzz::textOf(data, size);
    std::vector<std::string> lines = npfuzz::linesOf(input);
    lines.resize(3);
    BAS::DateTime const left = checkText(lines[0], lines[2]);
    BAS::DateTime const right = checkText(lines[1], lines[2]);
    checkOrder(lines[0], lines[1], left, right);
    checkOrder(lines[1], lines[0], right, left);
    checkSeconds(input, lines[2]);
    return 0;
}
