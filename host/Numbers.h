// Telephone numbers and search methods as people write them.
//
// Purpose: what every command that takes numbers has in common.
// Threads: no state.
// Errors: std::bad_alloc.
// Complexity: linear in the number.
#pragma once

#include "framework/BAS/String.h"

#include <optional>
#include <string>
#include <string_view>

namespace nphost {

class LoadedPlugIn;

bool hasDigit(std::string_view text);

// The number for a look-up: as it stands, or in stored form, without the blanks, hyphens, dots and parentheses that
// people write. `out` keeps its storage.
void readNumber(std::string_view number, bool normalise, LoadedPlugIn const& plugIn, BAS::String& out);

// "best" 0, "exact" 1, "shortest" 2.
constexpr unsigned int searchMethodsCM = 3;
std::optional<unsigned int> searchMethodOf(std::string_view name);
char const* nameOfSearchMethod(unsigned int method);

} // namespace nphost
