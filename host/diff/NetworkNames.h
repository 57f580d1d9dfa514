// nphost::NetworkNames: network identifiers as small numbers.
//
// Purpose: records that are sorted by the million carry a number in place of their network's name. Data have some
// hundred networks; should a file have so many that their names exceed the bound, later ones get no number, and
// whoever asks keeps the name itself.
// Units and ranges: numbers count up from 0; noneCM is no number. A name that once had none never gets one, so two
// names are equal if and only if their numbers are, or both have none and the texts are equal.
// Ownership: owns the names; they stay where they are.
// Threads: none inside.
// Errors: std::bad_alloc, after which everything is as before.
// Complexity: a hash table; asking for the same name again at once is a comparison.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

namespace nphost {

class NetworkNames {
  public:
    static constexpr std::uint32_t noneCM = UINT32_MAX;

    // `mostBytes`: what names and table may take, roughly.
    explicit NetworkNames(std::size_t mostBytes) : roomM(mostBytes) {}
    NetworkNames(NetworkNames const&) = delete;
    NetworkNames& operator=(NetworkNames const&) = delete;

    std::uint32_t numberOf(std::string_view name);
    std::string_view nameOf(std::uint32_t number) const { return namesM[number]; }

  private:
    static constexpr std::size_t costCM = 128; // of a name besides its text

    std::size_t roomM;
    bool fullM = false;
    std::deque<std::string> namesM;
    std::unordered_map<std::string_view, std::uint32_t> numbersM; // its keys lie in namesM
    std::uint32_t latestM = noneCM;
};

} // namespace nphost
