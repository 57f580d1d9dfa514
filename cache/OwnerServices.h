// What the cache manager asks of the plug-in that owns it.
//
// Purpose: the cache manager knows its plug-in by pointer alone and may not include its header (includes run
// downward only). These functions are declared here, by the layer that calls them, and defined by the layer above; a
// test of the cache manager alone defines its own.
// Ownership: none. Threads: the thread that runs a load. None is called while the tree lock is held.
// Errors: the checks return false and have then made their own report; std::bad_alloc travels. Complexity: the
// plug-in's.
#pragma once

#include "framework/BAS/Status.h"

namespace DAT::NumberPortability {

class PlugIn;

namespace OwnerServices {

// Whether the main data file, or the named file, opens for reading. Tested with the plug-in's own reader.
bool checkFile(PlugIn& plugIn);
bool checkFile(PlugIn& plugIn, BAS::String const& fileName);

// Sets the plug-in's status record and writes it to the log.
void report(PlugIn& plugIn, BAS::String const& identifier, BAS::Status::Severity severity,
            BAS::Status::Arguments const& arguments);

BAS::String name(PlugIn const& plugIn);

} // namespace OwnerServices
} // namespace DAT::NumberPortability
