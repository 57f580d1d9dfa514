// What a client module is to a host of the plug-in: the functions that it shows.
//
// Purpose: a client module is a shared object that uses the plug-in from within its process, as a rating or routing
// module does. `nphost run` loads those that the key `clients` of its configuration names. A client module links
// NumberPortability::PlugIn (CMake) or numberportability (pkg-config) and defines NumberPortabilityClientStart, and, if
// it has something to end, NumberPortabilityClientStop.
//
// Ownership: the host owns the plug-in, which lives until NumberPortabilityClientStop has returned and not longer.
// Threads: both are called by the host's main thread, one client after the other, in the configuration's order and, at
// the end, in the reverse order. Start is called when the data are loaded and before the daemon says that it is ready:
// whoever has lasting work starts a thread for it, and ends it in Stop. What may be called from such a thread is said
// in plugin/PlugIn.h; init, shutdown, destruction and stopLoads are the host's. A client may load by registryUpdate, by
// carryOut or by a probe, none of which displaces a request of the host's. The host's guard does not check such a load,
// and a load that the host has checked fails if the client exchanges its file meanwhile. Reports go to the host's log
// by BAS::RegisteredObject::writeLog, under a name of the client's own.
// Errors: a Start that returns false or throws is reported; its Stop is not called, so it must leave no thread behind.
// What Stop throws is reported. Neither keeps the daemon from its work; a client that crashes takes it along.
// Complexity: the client's.
//
// Across shared objects: a client is built with the compiler family and the standard library of the module, and with
// the headers of the version that it runs with.
#pragma once

#include "plugin/PlugIn.h"

extern "C" {

__attribute__((visibility("default"))) bool NumberPortabilityClientStart(DAT::NumberPortability::PlugIn& plugIn);
__attribute__((visibility("default"))) void NumberPortabilityClientStop();
}
