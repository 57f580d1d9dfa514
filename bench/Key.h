// npbench::Key: a generated number or block prefix in eight bytes.
//
// Purpose: the generator holds up to a hundred million of them. A key is a run of national digits; in stored form it
// has 0049 in front. Keys compare as their digits do as text, a prefix before its extensions.
// Ownership: a value. Threads: none inside. Errors: none; digits beyond mostDigitsCM are the caller's error.
// Complexity: constant.
#pragma once

#include "framework/BAS/String.h"

#include <compare>
#include <cstdint>
#include <string>
#include <string_view>

namespace npbench {

constexpr std::uint64_t powerOfTen(unsigned exponent) {
    std::uint64_t power = 1;
    while (exponent-- > 0)
        power *= 10;
    return power;
}

class Key {
  public:
    static constexpr unsigned mostDigitsCM = 13;
    static constexpr std::string_view storedPrefixCM = "0049";

    constexpr Key() = default;
    constexpr Key(std::uint64_t value, unsigned digits)
        : bitsM(value * powerOfTen(mostDigitsCM - digits) << 4 | digits) {}

    // Of a text in stored form.
    static Key of(std::string_view text) {
        std::uint64_t value = 0;
        text.remove_prefix(storedPrefixCM.size());
        for (char const digit : text)
            value = 10 * value + static_cast<unsigned>(digit - '0');
        return {value, static_cast<unsigned>(text.size())};
    }

    constexpr unsigned digits() const { return bitsM & 15; }
    constexpr std::uint64_t value() const { return (bitsM >> 4) / powerOfTen(mostDigitsCM - digits()); }
    constexpr std::uint64_t bits() const { return bitsM; }
    // The first digits of this key.
    constexpr Key prefix(unsigned count) const { return {(bitsM >> 4) / powerOfTen(mostDigitsCM - count), count}; }

    // Appends the stored form.
    void appendTo(std::string& text) const {
        std::size_t const begin = text.size() + storedPrefixCM.size();
        text += storedPrefixCM;
        text.resize(begin + digits());
        std::uint64_t rest = value();
        for (std::size_t i = text.size(); i-- > begin; rest /= 10)
            text[i] = static_cast<char>('0' + rest % 10);
    }
    BAS::String text() const {
        std::string text;
        appendTo(text);
        return text;
    }

    friend constexpr auto operator<=>(Key, Key) = default;

  private:
    std::uint64_t bitsM = 0;
};

} // namespace npbench
