// OMF::TomlLimits: what a TOML file may ask of its parser.
//
// Purpose: a parser of nested texts recurses, and a key of fifty thousand parts, or as many brackets, ends the process
// where the stack ends. So whoever reads a TOML file asks here first.
// Units and ranges: a file has at most mostBytesCM bytes, a key at most mostKeyPartsCM parts (a.b.c has three), a value
// at most mostNestedCM arrays and inline tables in each other. What a person writes stays far below each.
// Ownership: none. Threads: no state. Errors: std::bad_alloc. Complexity: linear in the text.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace OMF::TomlLimits {

constexpr std::size_t mostBytesCM = 1024UL * 1024;
constexpr unsigned mostKeyPartsCM = 16;
constexpr unsigned mostNestedCM = 32;

struct Excess {
    std::string reason;
    std::size_t line; // from 1
};

// The first place where the text is beyond the limits; none when it may be parsed. Of a text that is no TOML, what the
// parser meets before its first error is within them.
std::optional<Excess> excessOf(std::string_view text);

} // namespace OMF::TomlLimits
