// nphost enum: answers on the command line as the front of ENUM does.
//
// Threads: the main thread. Errors: HostError. Complexity: a load of the data, then that of the look-ups.
#pragma once

#include "host/base/Arguments.h"

namespace nphost {

extern Command const enumCommandCM;

} // namespace nphost
