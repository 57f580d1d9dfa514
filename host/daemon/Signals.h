// nphost::Signals: the signals that a daemon obeys, brought to its event loop.
//
// Purpose: while the object lives, SIGTERM and SIGINT ask for the end and SIGHUP for a reload; SIGPIPE is ignored,
// so that a write fails instead (SIGXFSZ by main.cpp). The handlers only note the signal and wake the loop. They stay
// when the object goes: a signal that comes while the process ends must not change its exit status.
// Ownership: borrows nothing; there is one object in a process at a time.
// Threads: construction and destruction by one thread; the rest by the loop's. Signals may arrive on any.
// Errors: construction throws HostError.
// Complexity: constant.
#pragma once

#include "host/base/WakeUp.h"

namespace nphost {

class Signals {
  public:
    Signals();
    Signals(Signals const&) = delete;
    Signals& operator=(Signals const&) = delete;
    ~Signals();

    // Woken by each signal.
    WakeUp const& wakeUp() const noexcept { return wakeUpM; }

    // Whether there has been one since the last call; signals in quick succession are one.
    bool takeStop() noexcept;
    bool takeReload() noexcept;
    // Waits for the end to be asked for (true) or for `other` to be woken (false), whichever comes first. Signals stay
    // noted for the two above.
    bool awaitStop(WakeUp const& other) const noexcept;

  private:
    WakeUp wakeUpM;
};

} // namespace nphost
