#include "host/http/Html.h"

#include "host/base/Text.h"
#include "host/module/GuardLimits.h"

#include <array>
#include <cmath>

namespace nphost {

Html& Html::text(std::string_view foreign) {
    for (char const c : shortened(foreign)) {
        switch (c) {
        case '&':
            outM += "&amp;";
            break;
        case '<':
            outM += "&lt;";
            break;
        case '>':
            outM += "&gt;";
            break;
        case '"':
            outM += "&quot;";
            break;
        case '\'':
            outM += "&#39;";
            break;
        default:
            outM += c;
        }
    }
    return *this;
}

Html& Html::parameter(std::string_view value) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    for (char const c : value) {
        auto const code = static_cast<unsigned char>(c);
        bool const isPlain = isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '.';
        if (isPlain)
            outM += c;
        else
            outM.append("%").append(1, digits[code >> 4U]).append(1, digits[code & 0xFU]);
    }
    return *this;
}

// Not by printf: a decimal comma of the locale would be no number here.
Html& Html::percent(double value) {
    long const hundredths = std::lround(value * 100);
    outM += std::to_string(hundredths / 100);
    if (long const rest = hundredths % 100; rest != 0)
        outM.append(rest < 10 ? ".0" : ".").append(std::to_string(rest));
    outM += '%';
    return *this;
}

Html& Html::grouped(std::uint64_t number) {
    outM += nphost::grouped(number);
    return *this;
}

std::string durationText(std::uint64_t seconds, std::size_t count) {
    struct Unit {
        std::uint64_t seconds;
        char const* name;
    };
    // Years and months are means, in whole seconds.
    constexpr std::array<Unit, 6> units = {
        {{31'556'952, "year"}, {2'629'746, "month"}, {86'400, "day"}, {3'600, "hour"}, {60, "minute"}, {1, "second"}}};
    std::size_t first = 0;
    while (first + 1 < units.size() && seconds < units[first].seconds)
        ++first;
    std::string text;
    for (std::size_t i = first; i < units.size() && i < first + count; ++i) {
        std::uint64_t const whole = seconds / units[i].seconds;
        seconds %= units[i].seconds;
        if (whole > 0 || i == first)
            text.append(text.empty() ? "" : " ")
                .append(std::to_string(whole))
                .append(" ")
                .append(units[i].name)
                .append(whole == 1 ? "" : "s");
    }
    return text;
}

std::string distanceText(BAS::DateTime at, BAS::DateTime now, std::size_t units) {
    if (at == now)
        return "now";
    return at > now ? "in " + durationText(at.seconds() - now.seconds(), units)
                    : durationText(now.seconds() - at.seconds(), units) + " ago";
}

} // namespace nphost
