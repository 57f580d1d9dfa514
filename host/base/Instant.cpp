#include "host/base/Instant.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"

namespace nphost {

BAS::DateTime parseInstant(std::string_view text) noexcept {
    // By length: no other form is as long, so each has one meaning.
    if (text.size() == instantDigitsCM)
        return BAS::DateTime(text);
    constexpr std::string_view pattern = "dddd-dd-ddTdd:dd:dd";
    // No other offset is taken: the zone of the data is not known here.
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

BAS::DateTime instantOf(std::optional<std::string> const& option, BAS::DateTime otherwise) {
    BAS::DateTime const at = option ? parseInstant(*option) : otherwise;
    // An invalid instant is later than all others, and would silently ask for the newest record.
    if (option && !at.isValid())
        throw HostError("'" + shortened(*option) +
                        "' is not a valid instant; write YYYYMMDDHHMMSS or YYYY-MM-DDTHH:MM:SS");
    return at;
}

std::string digitsOf(BAS::DateTime at) {
    return at.asString("%Y%m%d%H%M%S").str();
}

std::string readable(BAS::DateTime at) {
    return at.asString("%Y-%m-%d %H:%M:%S").str();
}

} // namespace nphost
