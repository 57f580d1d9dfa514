// Texts that tests look into, and that they make.
#pragma once

#include <algorithm>
#include <string>

inline bool contains(std::string const& text, std::string const& part) {
    return text.find(part) != std::string::npos;
}

inline long lineCount(std::string const& text) {
    return std::count(text.begin(), text.end(), '\n');
}

// The text with every `from` in it replaced; `to` must not hold it.
inline std::string replaced(std::string text, std::string const& from, std::string const& to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos;)
        text.replace(at, from.size(), to);
    return text;
}

// That many lines, alike but for a number that counts up.
inline std::string numberedLines(long count, std::string const& before, long first, std::string const& after) {
    std::string lines;
    for (long i = first; i < first + count; ++i)
        lines.append(before).append(std::to_string(i)).append(after).append("\n");
    return lines;
}
