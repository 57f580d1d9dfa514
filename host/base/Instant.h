// Instants as people and other programs write them.
//
// Purpose: reads an instant as it stands: 14 digits YYYYMMDDHHMMSS, or ISO 8601 as YYYY-MM-DDTHH:MM:SS with a blank for
// the T and a Z at the end if one likes; and writes instants as 14 digits, or as people read them. No zone is known
// here: whoever asks at an instant that has an offset takes fields/DataClock.h.
// Threads: no state.
// Errors: of any other text the result is invalid; texts throw std::bad_alloc.
// Complexity: constant; all but the texts without allocation.
#pragma once

#include "framework/BAS/DateTime.h"

#include <array>
#include <string>
#include <string_view>

namespace nphost {

constexpr std::size_t instantDigitsCM = 14;

BAS::DateTime parseInstant(std::string_view text) noexcept;

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
