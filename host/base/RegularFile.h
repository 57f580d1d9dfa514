// nphost::RegularFile: opening files that must be files.
//
// Purpose: a pipe or a device where a file is expected would hold up whoever reads it, for ever if nobody writes. What
// is read while a daemon serves is opened so that nothing waits, and looked at before the first byte is asked for.
// Ownership: the descriptor is the caller's.
// Threads: no state.
// Errors: HostError, "FILE: REASON" in one line.
// Complexity: constant.
#pragma once

#include "host/base/FileDescriptor.h"

#include <filesystem>

namespace nphost {

// For reading.
FileDescriptor openRegularFile(std::filesystem::path const& file);

} // namespace nphost
