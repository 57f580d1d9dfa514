// nphost ctl: asks a daemon through its control socket.
//
// Purpose: one request a call, and its answer for people or, with `json`, as the daemon gave it.
// Threads: one thread.
// Errors: HostError when no daemon answers, when it refuses the request, or when the answer cannot be written;
// ConfigurationError; std::bad_alloc.
// Complexity: linear in the answer. Look-ups of many numbers are sent in several requests.
#pragma once

#include "host/base/Arguments.h"

namespace nphost {

extern Command const ctlCommandCM;

} // namespace nphost
