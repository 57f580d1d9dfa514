// nphost run: loads the plug-in and serves until it is told to stop.
//
// Purpose: brings up signals, log, control socket, framework, module, data and client modules in this order, runs the
// daemon, and takes all of it down in the reverse order. Where the guard refuses the first load, nothing is loaded or
// served. A signal to stop breaks the first load off.
// Threads: the main thread runs the event loop; the first load has one of its own, for which the main thread waits.
// Errors: HostError, ConfigurationError, std::bad_alloc when it cannot start.
// Complexity: a load, then what it is asked for.
#pragma once

#include "host/base/Arguments.h"

namespace nphost {

extern Command const runCommandCM;

} // namespace nphost
