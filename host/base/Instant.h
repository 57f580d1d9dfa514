// Instants as people and other programs write them.
//
// Purpose: reads the instant of a look-up: 14 digits YYYYMMDDHHMMSS, or ISO 8601 as YYYY-MM-DDTHH:MM:SS with a blank
// for the T and a Z at the end if one likes. There is no time zone but that of the data, for which UTC is wise.
// Threads: no state.
// Errors: of any other text the result is invalid; of an option it is a HostError.
// Complexity: constant, without allocation.
#pragma once

#include "framework/BAS/DateTime.h"

#include <optional>
#include <string>
#include <string_view>

namespace nphost {

constexpr std::size_t instantDigitsCM = 14;

BAS::DateTime parseInstant(std::string_view text) noexcept;

// The instant of an option, or `otherwise` if it is not given. An empty one is given: a script's unset variable.
BAS::DateTime instantOf(std::optional<std::string> const& option, BAS::DateTime otherwise);

} // namespace nphost
