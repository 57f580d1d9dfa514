// Instants as people and other programs write them.
//
// Purpose: reads the instant of a look-up: 14 digits YYYYMMDDHHMMSS, or ISO 8601 as YYYY-MM-DDTHH:MM:SS with a blank
// for the T and a Z at the end if one likes; and writes instants as 14 digits, or as people read them. There is no time
// zone but that of the data, for which UTC is wise.
// Threads: no state.
// Errors: of any other text the result is invalid; of an option it is a HostError; texts throw std::bad_alloc.
// Complexity: constant; all but the texts without allocation.
#pragma once

#include "framework/BAS/DateTime.h"

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace nphost {

constexpr std::size_t instantDigitsCM = 14;

BAS::DateTime parseInstant(std::string_view text) noexcept;

// The instant of an option, or `otherwise` if it is not given. An empty one is given: a script's unset variable.
BAS::DateTime instantOf(std::optional<std::string> const& option, BAS::DateTime otherwise);

// The 14 digits of a valid instant, for as long as the object lives.
class InstantDigits {
  public:
    explicit InstantDigits(BAS::DateTime at) noexcept { at.toDigits(digitsM.data()); }
    std::string_view view() const noexcept { return {digitsM.data(), digitsM.size()}; }

  private:
    std::array<char, instantDigitsCM> digitsM{};
};

// The 14 digits, or "INVALID".
std::string digitsOf(BAS::DateTime at);

// "2026-01-31 12:00:00", or "INVALID".
std::string readable(BAS::DateTime at);

} // namespace nphost
