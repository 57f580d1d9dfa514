// nphost::residentBytes: how much memory the process has at this moment, in bytes; 0 where the system does not say.
//
// Threads: any. Errors: std::bad_alloc. Complexity: one small file of the system's.
#pragma once

#include <cstdint>

namespace nphost {

std::uint64_t residentBytes();

} // namespace nphost
