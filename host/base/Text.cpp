#include "host/base/Text.h"

namespace nphost {

namespace {

unsigned char byteAt(std::string_view text, std::size_t position) {
    return static_cast<unsigned char>(text[position]);
}

bool isContinuation(std::string_view text, std::size_t position) {
    return position < text.size() && (byteAt(text, position) & 0xC0U) == 0x80U;
}

// Whether the second byte of a longer sequence keeps it the shortest form, no surrogate and at most U+10FFFF.
bool isSecondAllowed(unsigned char first, unsigned char second) {
    switch (first) {
    case 0xE0:
        return second >= 0xA0;
    case 0xED:
        return second < 0xA0;
    case 0xF0:
        return second >= 0x90;
    case 0xF4:
        return second < 0x90;
    default:
        return true;
    }
}

// Bytes of the UTF-8 character at the front; 0 when there is none.
std::size_t characterLength(std::string_view text) {
    unsigned char const first = byteAt(text, 0);
    if (first < 0x80)
        return 1;
    // C0 and C1 would only begin longer forms of ASCII; beyond F4 there is no character.
    if (first < 0xC2 || first > 0xF4)
        return 0;
    std::size_t const length = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    for (std::size_t i = 1; i < length; ++i)
        if (!isContinuation(text, i))
            return 0;
    return isSecondAllowed(first, byteAt(text, 1)) ? length : 0;
}

// C0 and DEL, and C1 in two bytes, which some terminals obey as well.
bool isControl(std::string_view character) {
    unsigned char const first = byteAt(character, 0);
    return first < 0x20 || first == 0x7F || (first == 0xC2 && byteAt(character, 1) < 0xA0);
}

void appendCode(std::string& out, char byte) {
    constexpr std::string_view digits = "0123456789abcdef";
    auto const value = static_cast<unsigned char>(byte);
    out += "\\x";
    out += digits[value >> 4U];
    out += digits[value & 0xFU];
}

void appendEscaped(std::string& out, std::string_view bytes) {
    for (char const byte : bytes) {
        if (byte == '\n')
            out += "\\n";
        else if (byte == '\t')
            out += "\\t";
        else if (byte == '\r')
            out += "\\r";
        else
            appendCode(out, byte);
    }
}

} // namespace

void appendVisible(std::string& out, std::string_view text, std::string_view alsoEscaped) {
    while (!text.empty()) {
        std::size_t const length = characterLength(text);
        // A byte that begins no character goes alone, so that what follows is seen again as it is.
        std::string_view const character = text.substr(0, length == 0 ? 1 : length);
        if (length == 0 || isControl(character)) {
            appendEscaped(out, character);
        } else {
            // Only whole characters are looked for, so that no byte in the middle of one gets a backslash.
            if (alsoEscaped.find(character) != std::string_view::npos)
                out += '\\';
            out += character;
        }
        text.remove_prefix(character.size());
    }
}

void appendShortened(std::string& out, std::string_view text, std::string_view alsoEscaped) {
    if (text.size() <= shownBytesCM)
        return appendVisible(out, text, alsoEscaped);
    // Bytes and not characters: what is no UTF-8 has none, and the bound is for space.
    std::size_t end = shownBytesCM;
    for (int i = 0; i < 3 && isContinuation(text, end); ++i) // not in the middle of a character
        --end;
    appendVisible(out, text.substr(0, end), alsoEscaped);
    out += "... (" + std::to_string(text.size()) + " bytes)";
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t";
    std::size_t const begin = text.find_first_not_of(blanks);
    return begin == std::string_view::npos ? std::string_view()
                                           : text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

std::string visible(std::string_view text) {
    std::string out;
    appendVisible(out, text);
    return out;
}

std::string shortened(std::string_view text) {
    std::string out;
    appendShortened(out, text);
    return out;
}

// All bytes but those that continue a character; of wide and combining ones the width is not known here.
std::size_t characters(std::string_view text) {
    std::size_t count = 0;
    for (std::size_t i = 0; i < text.size(); ++i)
        count += isContinuation(text, i) ? 0 : 1;
    return count;
}

// A byte that begins no character goes alone, as in appendVisible: what follows is seen again as it is.
std::string asUtf8(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        std::size_t const length = characterLength(text);
        if (length == 0)
            out += "\xEF\xBF\xBD";
        else
            out += text.substr(0, length);
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return out;
}

} // namespace nphost
