// DAT::NumberPortability::LoadStop: the word that ends loads for good.
//
// Purpose: a load asks goOn at every line and record, and so ends within some thousand of them when stop was called.
// Ownership: none. Threads: any, at any time, signal handlers included: one lock-free flag, and stop wakes nobody.
// Errors: goOn throws Stopped after stop. Complexity: constant.
#pragma once

#include <atomic>

namespace DAT::NumberPortability {

class LoadStop {
  public:
    struct Stopped {};

    void stop() noexcept { flagM.store(true, std::memory_order_relaxed); }
    // Where a load may end.
    void goOn() const {
        if (flagM.load(std::memory_order_relaxed)) [[unlikely]]
            throw Stopped();
    }
    // For who waits and looks at it meanwhile.
    std::atomic<bool> const& flag() const { return flagM; }

  private:
    std::atomic<bool> flagM{false};
    static_assert(std::atomic<bool>::is_always_lock_free); // else no signal handler could set it
};

} // namespace DAT::NumberPortability
