// Options that say how the records of a CSV file are cut, declared once.
//
// Purpose: the same names, values and help for feeds and for call records.
// Ownership: the places must outlive the parser.
// Threads: the main thread. Errors: std::bad_alloc. Complexity: constant.
#pragma once

#include "host/base/Arguments.h"

#include <optional>
#include <string>

namespace nphost {

// --separator, --no-header and --no-quotes.
void addSeparation(Arguments& arguments, std::optional<std::string>& separator, bool& noHeader, bool& noQuotes);

} // namespace nphost
