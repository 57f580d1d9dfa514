#include "host/base/JsonWriter.h"

#include "host/base/Text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace nphost {

namespace {

// Most texts are: they need no look at each character.
bool isPlain(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return c >= ' ' && c < '\x7f' && c != '"' && c != '\\'; });
}

// A byte of a UTF-8 text; those of longer characters stay as they are.
void appendJsonByte(std::string& out, char byte) {
    constexpr std::string_view named = "\"\\\b\f\n\r\t";
    constexpr std::string_view names = "\"\\bfnrt";
    constexpr std::string_view digits = "0123456789abcdef";
    auto const code = static_cast<unsigned char>(byte);
    if (std::size_t const position = named.find(byte); position != std::string_view::npos)
        out.append("\\").append(1, names[position]);
    else if (code < ' ')
        out.append("\\u00").append(1, digits[code >> 4U]).append(1, digits[code & 0xFU]);
    else
        out += byte;
}

} // namespace

void appendJsonText(std::string& out, std::string_view text) {
    out += '"';
    if (isPlain(text))
        out += text;
    else
        for (char const byte : asUtf8(text))
            appendJsonByte(out, byte);
    out += '"';
}

JsonWriter& JsonWriter::key(std::string_view name) {
    // The key takes the comma: none must stand before its value.
    value(name);
    outM += ':';
    followsM = false;
    return *this;
}

JsonWriter& JsonWriter::value(std::string_view text) {
    separate();
    appendJsonText(outM, text);
    return *this;
}

JsonWriter& JsonWriter::value(double number) {
    if (!std::isfinite(number))
        return value(nullptr);
    double const size = std::abs(number);
    // Within these bounds the plain form is short enough for people, and for the place below.
    bool const isShort = size == 0 || (size >= 1e-4 && size < 1e15);
    std::array<char, 32> digits{};
    auto const [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), number,
                                            isShort ? std::chars_format::fixed : std::chars_format::scientific);
    std::string_view const text(digits.data(), static_cast<std::size_t>(end - digits.data()));
    append(text);
    if (isShort && text.find('.') == std::string_view::npos)
        outM += ".0";
    return *this;
}

void JsonWriter::separate() {
    if (followsM)
        outM += ',';
    followsM = true;
}

JsonWriter& JsonWriter::begin(char bracket) {
    separate();
    outM += bracket;
    followsM = false;
    return *this;
}

JsonWriter& JsonWriter::end(char bracket) {
    outM += bracket;
    followsM = true;
    return *this;
}

JsonWriter& JsonWriter::append(std::string_view token) {
    separate();
    outM += token;
    return *this;
}

} // namespace nphost
