// Options that several commands take for numbers, instants and methods, each declared once.
//
// Purpose: the same names, values and help wherever they stand.
// Ownership: the places must outlive the parser.
// Threads: the main thread. Errors: std::bad_alloc. Complexity: constant.
#pragma once

#include "host/base/Arguments.h"

#include <optional>
#include <string>

namespace nphost {

// --method best, exact or shortest; none: as configured.
Option addMethod(Arguments& arguments, std::optional<unsigned int>& place);

// An instant, by default now. `what` says for what, as "When numbers must be in force; "; empty where that is plain.
Option addInstant(Arguments& arguments, std::string const& name, std::optional<std::string>& place,
                  std::string const& what = {});

// --time-format and --zone, as TimeReader takes them. Without a zone it is that of the DataClock.
void addTimeForm(Arguments& arguments, std::string& format, std::optional<std::string>& zone);

// --normalise. `needs` is what the help says behind it.
Option addNormalise(Arguments& arguments, bool& place, std::string const& needs = {});

} // namespace nphost
