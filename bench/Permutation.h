// npbench::Permutation: the positions 0 to size - 1 in a random order that needs no memory.
//
// How: a network of four rounds over the halves of the next even number of bits, asked again while it leaves the range.
// Ownership: a value. Threads: constant once constructed. Errors: none. Complexity: constant, about four rounds.
#pragma once

#include <bit>
#include <cstdint>

namespace npbench {

// splitmix64's finisher: looks random, and is the same everywhere.
constexpr std::uint64_t mixed(std::uint64_t value) {
    value += 0x9e3779b97f4a7c15U;
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9U;
    value = (value ^ (value >> 27)) * 0x94d049bb133111ebU;
    return value ^ (value >> 31);
}

class Permutation {
  public:
    Permutation(std::uint64_t size, std::uint64_t seed)
        : sizeM(size), seedM(seed), halfM((static_cast<unsigned>(std::bit_width(size)) + 1) / 2),
          maskM((std::uint64_t{1} << halfM) - 1) {}

    std::uint64_t operator()(std::uint64_t position) const {
        do
            position = round(position);
        while (position >= sizeM);
        return position;
    }

  private:
    std::uint64_t round(std::uint64_t value) const {
        std::uint64_t left = value >> halfM, right = value & maskM;
        for (std::uint64_t i = 0; i < 4; ++i) {
            std::uint64_t const next = left ^ (mixed(right + seedM + (i << 56)) & maskM);
            left = right;
            right = next;
        }
        return left << halfM | right;
    }

    std::uint64_t sizeM;
    std::uint64_t seedM;
    unsigned halfM;
    std::uint64_t maskM;
};

} // namespace npbench
