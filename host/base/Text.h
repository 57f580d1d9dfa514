// Text for people: makes bytes of any origin fit to be shown on one line.
//
// Purpose: a data line or a file name may hold anything. Shown as it stands it could forge a log line or command the
// terminal; so control characters and bytes that are not UTF-8 are written as \t, \n, \r or \xNN.
// Ownership: the functions append to the caller's string.
// Threads: no state.
// Errors: std::bad_alloc.
// Complexity: linear in the text.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace nphost {

// The longest text that appendShortened shows whole, in bytes.
constexpr std::size_t shownBytesCM = 200;

// Appends `text` on one line; the ASCII characters in `alsoEscaped` get a backslash.
void appendVisible(std::string& out, std::string_view text, std::string_view alsoEscaped = {});

// As appendVisible, but of a longer text only the first bytes, followed by how long it was.
void appendShortened(std::string& out, std::string_view text, std::string_view alsoEscaped = {});

// The text without blanks and tabs around it.
std::string_view trimmed(std::string_view text);

std::string visible(std::string_view text);

// Of ASCII, whatever the locale.
constexpr bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// A hexadecimal digit's value; -1 for what is none.
constexpr int hexDigit(char c) {
    if (isDigit(c))
        return c - '0';
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : (c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1);
}

// How many characters the text has, which must be UTF-8: what is lined up in columns is not counted in bytes.
std::size_t characters(std::string_view text);
std::string shortened(std::string_view text);

// The text with each byte that is not UTF-8 replaced by U+FFFD, for formats that must be UTF-8.
std::string asUtf8(std::string_view text);

} // namespace nphost
