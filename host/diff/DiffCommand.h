// nphost diff: what has changed from one data file to another.
//
// Purpose: reads two data files as a load would, by the configured dialling codes, without serving them, and tells the
// numbers gained, lost, moved from network to network, and whose histories were lengthened or rewritten
// (FileComparison.h says what each means), as text, as one JSON object, as a list of numbers, or as the
// matrix of moves.
// Units: memory is given in MiB; it bounds what the records take of it, whatever the files' sizes. What does not fit
// goes to the folder for temporary files (TMPDIR), 32 bytes a record.
// Threads: one thread, and that of the progress line.
// Errors: HostError when a file cannot be read to its end, or a temporary file or the report cannot be written;
// ConfigurationError; std::bad_alloc.
// Complexity: n log n in the lines. Listed numbers are written as they are found.
#pragma once

#include "host/base/Arguments.h"
#include "host/diff/FileComparison.h"

namespace nphost {

extern Command const diffCommandCM;

} // namespace nphost
