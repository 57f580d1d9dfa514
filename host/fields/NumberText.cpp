#include "host/fields/NumberText.h"

#include "host/base/Text.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace nphost {

namespace {

// Characters in a row that are read as one: FIRST to LAST become `as`, or, where it counts up, as + 0, as + 1 and so
// on.
struct Range {
    std::uint32_t first;
    std::uint32_t last;
    char as; // NUL: nothing
    bool countsUp = false;
};
constexpr std::array rangesCM = {
    Range{0x00A0, 0x00A0, ' '},       Range{0x00AD, 0x00AD, '\0'},      Range{0x061C, 0x061C, '\0'},
    Range{0x0660, 0x0669, '0', true}, Range{0x06F0, 0x06F9, '0', true}, Range{0x1680, 0x1680, ' '},
    Range{0x2000, 0x200A, ' '},       Range{0x200B, 0x200F, '\0'},      Range{0x2010, 0x2015, '-'},
    Range{0x202A, 0x202E, '\0'},      Range{0x202F, 0x202F, ' '},       Range{0x205F, 0x205F, ' '},
    Range{0x2060, 0x2060, '\0'},      Range{0x2066, 0x2069, '\0'},      Range{0x2212, 0x2212, '-'},
    Range{0x3000, 0x3000, ' '},       Range{0x30FC, 0x30FC, '-'},       Range{0xFE58, 0xFE58, '-'},
    Range{0xFE63, 0xFE63, '-'},       Range{0xFEFF, 0xFEFF, '\0'},      Range{0xFF01, 0xFF5E, '!', true},
};

constexpr std::size_t longExtensionCM = 7;  // digits behind a word
constexpr std::size_t shortExtensionCM = 5; // digits behind an x

// The character at the front, of two or three bytes: all in the table are. 0, and a length of 1, for any other byte.
std::uint32_t characterOf(std::string_view text, std::size_t& length) {
    auto const byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    // No text is refused here, so no form need be checked beyond the bytes that follow: what is not in the table stays
    // as it is.
    length = text.size() >= 2 && (byte(0) & 0xE0U) == 0xC0 ? 2 : text.size() >= 3 && (byte(0) & 0xF0U) == 0xE0 ? 3 : 1;
    std::uint32_t character = byte(0) & (length == 2 ? 0x1FU : 0x0FU);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0U) != 0x80)
            length = 1;
        else
            character = character << 6U | (byte(i) & 0x3FU);
    }
    return length == 1 ? 0 : character;
}

void appendPlain(std::string& out, std::string_view bytes, std::uint32_t character) {
    auto const* const range = std::find_if(rangesCM.begin(), rangesCM.end(), [character](Range const& r) {
        return character >= r.first && character <= r.last;
    });
    if (range == rangesCM.end())
        out += bytes;
    else if (range->as != '\0')
        out += static_cast<char>(range->as + (range->countsUp ? static_cast<int>(character - range->first) : 0));
}

std::string_view withoutEnd(std::string_view text, std::string_view characters) {
    return text.substr(0, text.find_last_not_of(characters) + 1);
}

bool takeWord(std::string_view& text, std::string_view lowerCase) {
    if (text.size() < lowerCase.size() ||
        !std::equal(lowerCase.begin(), lowerCase.end(), text.end() - static_cast<long>(lowerCase.size()),
                    [](char one, char other) { return one == (other | 0x20); }))
        return false;
    text.remove_suffix(lowerCase.size());
    return true;
}

} // namespace

std::string_view plainNumberText(std::string_view text, std::string& place) {
    // Nearly all texts: nothing is copied.
    if (std::none_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; }))
        return text;
    place.clear();
    for (std::size_t length = 0; !text.empty(); text.remove_prefix(length)) {
        std::uint32_t const character = characterOf(text, length);
        appendPlain(place, text.substr(0, length), character);
    }
    return place;
}

std::string_view withoutExtension(std::string_view text) {
    // Read from its end, since what an extension is behind may have any form.
    std::string_view const whole = text;
    text = withoutEnd(text, " \t");
    std::size_t digits = 0;
    for (; !text.empty() && isDigit(text.back()) && digits <= longExtensionCM; ++digits)
        text.remove_suffix(1);
    // More digits are a number's own.
    if (digits == 0 || digits > longExtensionCM)
        return whole;
    // What stands between word and digits: "ext. 5", "ext=5", "x#5".
    text = withoutEnd(text, " \t.:=#-");
    bool const isWord = takeWord(text, "extension") || takeWord(text, "extn") || takeWord(text, "ext");
    bool const isX = !isWord && digits <= shortExtensionCM && takeWord(text, "x");
    text = withoutEnd(text, " \t,;.-");
    // Before an extension there must be a number, which ends in a digit or a bracket.
    return (isWord || isX) && !text.empty() && (isDigit(text.back()) || text.back() == ')') ? text : whole;
}

bool hasDigit(std::string_view text) {
    return std::any_of(text.begin(), text.end(), isDigit);
}

// One or two zeros behind the point only: other fractions are groups of digits, "0.7700.900123".
bool isDecimal(std::string_view text) {
    text = withoutEnd(text.substr(std::min(text.find_first_not_of("( \t"), text.size())), ") \t");
    if (text.starts_with('+'))
        text.remove_prefix(1);
    std::size_t const point = text.find('.');
    std::string_view const behind = point == std::string_view::npos ? std::string_view() : text.substr(point + 1);
    return point != 0 && (behind == "0" || behind == "00") &&
           std::all_of(text.begin(), text.begin() + static_cast<long>(point), isDigit);
}

} // namespace nphost
