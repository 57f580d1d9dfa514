// BAS::ProtectedBool: a boolean that several threads may read and set.
//
// Purpose: tells the framework whether an update held a command that somebody handled.
// Threads: all operations are safe from any thread; a read sees the latest write.
// Errors: none. Complexity: constant.
#pragma once

#include <atomic>

namespace BAS {

class ProtectedBool {
  public:
    explicit ProtectedBool(bool value = false) noexcept : valueM(value) {}
    void set(bool value) noexcept { valueM.store(value); }
    bool get() const noexcept { return valueM.load(); }

  private:
    std::atomic<bool> valueM;
};

} // namespace BAS
