// nphost enrich: call records with the network that each number belonged to.
//
// Purpose: reads records of CSV or of newline-delimited JSON, looks up one or more numbers of each at the record's
// time, and writes the records as they came, in their order, with the answers added. A record that cannot be used goes
// to a file of rejects, or stays without answers.
// Threads: one that reads, one that writes, as many as wanted between, and that of the progress line.
// Errors: HostError, ConfigurationError, std::bad_alloc. A file that is written is replaced as a whole, or not at all.
// Interrupted for a closed output, or a signal.
// Complexity: linear in the records; memory does not grow with them.
#pragma once

#include "host/base/Arguments.h"

namespace nphost {

extern Command const enrichCommandCM;

} // namespace nphost
