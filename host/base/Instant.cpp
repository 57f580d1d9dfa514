#include "host/base/Instant.h"

namespace nphost {

BAS::DateTime parseInstant(std::string_view text) noexcept {
    // By length: no other form is as long, so each has one meaning.
    if (text.size() == instantDigitsCM)
        return BAS::DateTime(text);
    constexpr std::string_view pattern = "dddd-dd-ddTdd:dd:dd";
    // No other offset is taken: the data's zone is not known here.
    if (text.size() == pattern.size() + 1 && text.back() == 'Z')
        text.remove_suffix(1);
    if (text.size() != pattern.size())
        return {};
    char digits[instantDigitsCM] = {};
    std::size_t count = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (pattern[i] == 'd')
            digits[count++] = text[i]; // checked below, with the ranges
        else if (text[i] != pattern[i] && !(pattern[i] == 'T' && text[i] == ' '))
            return {};
    }
    return BAS::DateTime(std::string_view(digits, count));
}

std::string digitsOf(BAS::DateTime at) {
    return at.asString("%Y%m%d%H%M%S").str();
}

std::string readable(BAS::DateTime at) {
    return at.asString("%Y-%m-%d %H:%M:%S").str();
}

} // namespace nphost
