// DAT::NumberPortability::LoadProgress: how far the present load has come.
//
// Purpose: lets a host show lines, rate and time left during a load that takes minutes. Lines are those read from the
// file (not those parsed again from memory), bytes include line ends, totalBytes is the file's size at its opening.
// Ownership: the cache manager's. Threads: written by the thread that loads, read by any; the three values are each
// true of some moment, not of the same one. Errors: none. Complexity: constant.
#pragma once

#include <atomic>
#include <cstdint>

namespace DAT::NumberPortability {

class LoadProgress {
  public:
    void start(std::uint64_t totalBytes) noexcept {
        totalBytesM.store(totalBytes, std::memory_order_relaxed);
        linesM.store(0, std::memory_order_relaxed);
        bytesM.store(0, std::memory_order_relaxed);
    }
    // Only one thread writes, so a plain load and store suffice.
    void addLine(std::uint64_t bytes) noexcept {
        linesM.store(lines() + 1, std::memory_order_relaxed);
        bytesM.store(this->bytes() + bytes, std::memory_order_relaxed);
    }

    std::uint64_t lines() const noexcept { return linesM.load(std::memory_order_relaxed); }
    std::uint64_t bytes() const noexcept { return bytesM.load(std::memory_order_relaxed); }
    std::uint64_t totalBytes() const noexcept { return totalBytesM.load(std::memory_order_relaxed); }

  private:
    std::atomic<std::uint64_t> linesM{0};
    std::atomic<std::uint64_t> bytesM{0};
    std::atomic<std::uint64_t> totalBytesM{0};
};

} // namespace DAT::NumberPortability
