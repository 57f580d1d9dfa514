// nphost upcoming: the assignments that are still to come.
//
// Purpose: loads the data and lists every record that is valid from later than an instant, by instant, then by number:
// to which network the number goes, and from which, that is, what a look-up by the configured method answers for the
// second before.
// Threads: one thread, and that of the progress line.
// Errors: HostError when the data cannot be loaded or the list cannot be written; ConfigurationError; std::bad_alloc.
// Complexity: that of a load; holds and sorts the upcoming records only.
#pragma once

#include "host/base/Arguments.h"

namespace nphost {

extern Command const upcomingCommandCM;

} // namespace nphost
