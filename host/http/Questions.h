// Questions as they come over HTTP: numbers, instants and methods.
//
// Purpose: what single look-ups and streams of them have in common.
// Threads: no state. Errors: QuestionError, a sentence without its full stop; std::bad_alloc. Complexity: linear.
// Source: E.164 (ITU-T) for numbers with a plus, RFC 3339 for instants.
#pragma once

#include "framework/BAS/DateTime.h"
#include "framework/BAS/String.h"

#include <optional>
#include <string_view>

namespace nphost {

class DataClock;
class NumberForm;

constexpr std::size_t mostNumberBytesCM = 256; // of a number as it is asked for

// With a plus it is E.164, digits alone are taken in stored form as they stand; normalised, it has any form that files
// may have.
void readAskedNumber(std::string_view text, bool normalise, NumberForm const& form, BAS::String& out);
BAS::DateTime readAskedInstant(std::string_view text, DataClock const& clock);
unsigned int readAskedMethod(std::string_view text);
bool readAskedFlag(std::string_view text, char const* name);

} // namespace nphost
