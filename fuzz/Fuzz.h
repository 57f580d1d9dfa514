// Shared by the fuzz targets: the entry point, reading the input, and checks.
//
// Purpose: a target is a function of bytes that compares the product with a naive model of it. A check that
// fails says what disagreed and aborts, which a fuzzer records as a crash and a replay as a failed test.
// Inputs are texts of lines wherever that is possible, so that the corpora can be read and written by hand.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace npfuzz {

inline std::string_view textOf(std::uint8_t const* data, std::size_t size) {
    return size == 0 ? std::string_view("") : std::string_view(reinterpret_cast<char const*>(data), size);
}

// The parts between newlines; a newline at the end begins no further line.
inline std::vector<std::string> linesOf(std::string_view text) {
    std::vector<std::string> lines;
    while (!text.empty()) {
        std::size_t const end = text.find('\n');
        lines.emplace_back(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return lines;
}

// Printable ASCII as it is, every other byte as \xNN.
inline std::string shown(std::string_view text) {
    std::string result = "\"";
    for (char const character : text) {
        auto const code = static_cast<unsigned char>(character);
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, code >= ' ' && code < 127 ? "%c" : "\\x%02x", code);
        result += escaped;
    }
    return result + '"';
}
inline std::string shown(std::uint64_t number) {
    return std::to_string(number);
}

template <class Value>
[[noreturn]] void fail(char const* what, std::string_view subject, Value found, Value expected) {
    std::fprintf(stderr, "%s of %s: the product says %s, the model says %s\n", what, shown(subject).c_str(),
                 shown(found).c_str(), shown(expected).c_str());
    std::abort();
}

// `what` names the property, `subject` whose it is.
inline void checkEqual(char const* what, std::string_view subject, std::uint64_t found, std::uint64_t expected) {
    if (found != expected)
        fail(what, subject, found, expected);
}
inline void checkEqual(char const* what, std::string_view subject, std::string_view found, std::string_view expected) {
    if (found != expected)
        fail(what, subject, found, expected);
}

} // namespace npfuzz
