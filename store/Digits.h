// PBC::Digits: up to sixteen digits of a key.
//
// Purpose: the form in which a key's digits are walked and compared, several at a step.
// Units and ranges: a digit is a child slot, 0 to 15; four bits each, the first in the highest, what is unused 0. So
// keys of one length compare as their numbers do.
// Ownership: a value. Threads, errors: none. Complexity: constant.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace PBC {

class Digits {
  public:
    static constexpr unsigned mostCM = 16;

    constexpr Digits() = default;
    // The digits as said above.
    constexpr Digits(std::uint64_t bits, unsigned length) : bitsM(bits), lengthM(length) {}
    static constexpr Digits of(int slot) { return {static_cast<std::uint64_t>(slot) << 60, 1}; }

    constexpr unsigned length() const { return lengthM; }
    constexpr bool empty() const { return lengthM == 0; }
    constexpr std::uint64_t bits() const { return bitsM; }
    constexpr int first() const { return static_cast<int>(bitsM >> 60); }
    constexpr int at(unsigned position) const { return static_cast<int>(bitsM >> (60 - 4 * position) & 15); }

    // Not beyond mostCM.
    constexpr void append(int slot) { bitsM |= static_cast<std::uint64_t>(slot) << (60 - 4 * lengthM++); }
    // The first `count`, fewer than mostCM and not more than there are, go.
    constexpr void drop(unsigned count) {
        bitsM <<= 4 * count;
        lengthM -= count;
    }

    static constexpr bool isDecimal(char character) { return character >= '0' && character <= '9'; }

    // Takes decimal digits off the front of `text`, with what stands before and between them, until there are mostCM or
    // no more.
    void appendDecimal(std::string_view& text) {
        if (lengthM == 0 && takeWhole(text))
            return;
        while (!text.empty() && lengthM < mostCM) {
            if (isDecimal(text.front()))
                append(text.front() - '0');
            text.remove_prefix(1);
        }
    }

    // The first `count` digits, not more than there are.
    constexpr Digits first(unsigned count) const {
        return {count == 0 ? 0 : bitsM >> (64 - 4 * count) << (64 - 4 * count), count};
    }

    // How many digits both begin with.
    constexpr unsigned commonWith(Digits const& other) const {
        auto const same = static_cast<unsigned>(std::countl_zero(bitsM ^ other.bitsM)) / 4;
        unsigned const shorter = lengthM < other.lengthM ? lengthM : other.lengthM;
        return same < shorter ? same : shorter;
    }

    friend constexpr bool operator==(Digits const&, Digits const&) = default;

  private:
    // The usual case, a text of eight to sixteen digits and nothing else; false, and nothing changes, otherwise.
    bool takeWhole(std::string_view& text) {
        if (text.size() < 8 || text.size() > mostCM)
            return false;
        std::uint64_t begin = 0, end = 0; // eight characters each; they may overlap
        if (!eight(text.data(), begin) || !eight(text.data() + text.size() - 8, end))
            return false;
        lengthM = static_cast<unsigned>(text.size());
        end &= (std::uint64_t{1} << 4 * (lengthM - 8)) - 1;
        bitsM = begin << 32 | end << (64 - 4 * lengthM);
        text = {};
        return true;
    }

    // Eight decimal digits as 32 bits, the first the highest; false when one is no digit.
    static bool eight(char const* text, std::uint64_t& bits) {
        constexpr std::uint64_t tens = 0xf0f0f0f0f0f0f0f0, zeros = 0x3030303030303030, sixes = 0x0606060606060606;
        std::uint64_t word = 0;
        std::memcpy(&word, text, sizeof word);
        if (((word & tens) ^ zeros) | (((word + sixes) & tens) ^ zeros))
            return false;
        word = __builtin_bswap64(word) & ~tens;
        word = (word | word >> 4) & 0x00ff00ff00ff00ff;
        word = (word | word >> 8) & 0x0000ffff0000ffff;
        bits = (word | word >> 16) & 0xffffffff;
        return true;
    }

    std::uint64_t bitsM = 0;
    unsigned lengthM = 0;
};

// The digits of a key that are still to be followed, in one word: an end mark lies behind the last.
class RemainingDigits {
  public:
    static constexpr unsigned mostCM = Digits::mostCM - 1;

    RemainingDigits() {} // NOLINT(modernize-use-equals-default): an array of them is not to be cleared
    explicit RemainingDigits(Digits const& digits) : bitsM(digits.bits() | endMark >> 4 * digits.length()) {}

    // The next digit; that of the end mark when there is none.
    unsigned first() const { return static_cast<unsigned>(bitsM >> 60); }
    // As Digits has them, the end mark behind them.
    std::uint64_t bits() const { return bitsM; }
    // Four bits for each digit that goes.
    void dropBits(unsigned count) { bitsM <<= count; }
    // How many digits there are, while the end mark is there.
    unsigned length() const { return static_cast<unsigned>(63 - __builtin_ctzll(bitsM)) / 4; }
    // Whether the end mark has gone too: more was dropped than there was.
    bool isOver() const { return bitsM == 0; }

  private:
    static constexpr std::uint64_t endMark = std::uint64_t{1} << 63;

    std::uint64_t bitsM;
};

} // namespace PBC
