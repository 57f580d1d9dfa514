// Telephone numbers and search methods as people write them.
//
// Purpose: what every command that takes numbers has in common.
// Threads: no state.
// Errors: std::bad_alloc.
// Complexity: linear in the number.
#pragma once

#include "framework/BAS/String.h"
#include "host/fields/NumberForm.h"

#include <optional>
#include <string>
#include <string_view>

namespace nphost {

// The number for a look-up, whatever command makes it: brought into stored form, or, without a form, as it stands if it
// has a digit and is no list or object of JSON. `out` keeps its storage.
NumberKind readNumber(std::string_view number, NumberForm const* form, BAS::String& out);

// Why a text that is no NUMBER cannot be looked up: a sentence without its full stop.
char const* sentenceOf(NumberKind kind);

// The same of a text that somebody gave as an argument.
std::string notANumber(std::string_view text, NumberKind kind);

// Of one that holds columns (host/fields/QuestionLine.h).
std::string notOneNumber(std::string_view text);

// "best" 0, "exact" 1, "shortest" 2.
constexpr unsigned int searchMethodsCM = 3;
std::optional<unsigned int> searchMethodOf(std::string_view name);
char const* nameOfSearchMethod(unsigned int method);

} // namespace nphost
