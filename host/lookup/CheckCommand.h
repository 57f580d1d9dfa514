// nphost check: what a data file holds, and what is wrong with it.
//
// Purpose: reads a data file as a load would, by the configured dialling codes, without serving it, and tells counts,
// rejected lines and networks, as text or as one JSON object; on demand also what the guard would say of the file, by
// the configured limits: as of a first load, of a reload beside as many live records as are named, or of a delta.
// Threads: one thread, and that of the progress line.
// Errors: HostError when the file cannot be read to its end or the report cannot be written; ConfigurationError;
// std::bad_alloc.
// Complexity: linear in the file. Rejected lines are written as they are found, none is kept but the first of each
// kind.
#pragma once

#include "host/base/Arguments.h"

namespace nphost {

extern Command const checkCommandCM;

} // namespace nphost
