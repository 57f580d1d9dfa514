// nphost::ProcessFigures: what the system says of this process.
//
// Purpose: what is watched of every process, under whatever name: see http/MetricsText.h.
// Ownership: a value. Threads: no state. Errors: std::bad_alloc; what the system does not tell is missing.
// Complexity: a few system calls, and before Linux 6.2 one step an open descriptor.
#pragma once

#include <cstdint>
#include <optional>

namespace nphost {

struct ProcessFigures {
    std::optional<double> cpuSeconds; // of all threads, user and system
    std::optional<std::uint64_t> virtualBytes;
    std::optional<std::uint64_t> residentBytes;
    std::optional<std::uint64_t> threads;
    std::optional<std::uint64_t> openDescriptors;
    std::optional<std::uint64_t> mostDescriptors; // the limit; missing where there is none
    std::optional<double> startSeconds;           // since 1970, UTC

    static ProcessFigures now();
};

} // namespace nphost
