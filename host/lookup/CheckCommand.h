// nphost check: what a data file holds, and what is wrong with it.
//
// Purpose: reads a data file as a load would, by the configured dialling codes, without serving it, and tells counts,
// rejected lines and networks, as text or as one JSON object; on demand also what the guard would say of the file, by the
// configured limits: as of a first load, of a reload beside as many live records as are named, or of a delta.
// Threads: one thread, and that of the progress line.
// Errors: HostError when the file cannot be read to its end or the report cannot be written; ConfigurationError;
// std::bad_alloc.
// Complexity: linear in the file. Rejected lines are written as they are found, none is kept but the first of each
// kind.
#pragma once

#include "host/module/Host.h"

#include <cstdint>
#include <optional>
#include <string>

namespace nphost {

struct CheckOptions {
    CommonOptions common;
    std::string file;
    bool all = false;
    bool json = false;
    bool guard = false;
    bool delta = false;                // for the guard it is a delta
    std::optional<std::uint64_t> live; // records, for the guard
};

// The exit status: REFUSED when a limit is crossed.
int check(CheckOptions const& options);

} // namespace nphost
