// Instants as people and other programs write them.
//
// Purpose: reads the instant of a look-up: 14 digits YYYYMMDDHHMMSS, or ISO 8601 as YYYY-MM-DDTHH:MM:SS with a blank
// for the T and a Z at the end if one likes. There is no time zone but that of the data, for which UTC is wise.
// Threads: no state.
// Errors: the result is invalid for any other text.
// Complexity: constant, without allocation.
#pragma once

#include "framework/BAS/DateTime.h"

#include <string_view>

namespace nphost {

constexpr std::size_t instantDigitsCM = 14;

BAS::DateTime parseInstant(std::string_view text) noexcept;

} // namespace nphost
