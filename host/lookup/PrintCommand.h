// nphost print: the listing of all records.
//
// Purpose: loads the data and prints them, number by number; without the heading the listing is a data file again.
// Threads: one thread, and that of the progress line.
// Errors: HostError when the output cannot be written or is the data file itself; Interrupted; ConfigurationError;
// std::bad_alloc.
// Complexity: linear in the records.
#pragma once

#include "host/base/Arguments.h"

namespace nphost {

extern Command const printCommandCM;

} // namespace nphost
