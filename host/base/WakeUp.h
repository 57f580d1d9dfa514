// nphost::WakeUp: lets another thread or a signal handler end the event loop's wait.
//
// Purpose: the loop polls descriptor() for reading; whoever has news for it calls wake.
// Ownership: owns its descriptor.
// Threads: all operations are safe from any thread, wake also from a signal handler.
// Errors: construction throws HostError with the system's reason.
// Complexity: one system call. Several wakes before a clear are one.
#pragma once

#include "host/base/FileDescriptor.h"

namespace nphost {

class WakeUp {
  public:
    WakeUp();

    int descriptor() const noexcept { return descriptorM.get(); }
    void wake() const noexcept;
    void clear() const noexcept;

  private:
    FileDescriptor descriptorM;
};

} // namespace nphost
