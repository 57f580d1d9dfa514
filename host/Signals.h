// nphost::Signals: the signals that a daemon obeys, brought to its event loop.
//
// Purpose: while the object lives, SIGTERM and SIGINT ask for the end and SIGHUP for a reload; SIGPIPE is ignored,
// so that a write fails instead (SIGXFSZ by main.cpp). The handlers only note the signal and wake the loop. Destruction
// puts back what was there before.
// Ownership: borrows nothing; there is one object in a process at a time.
// Threads: construction and destruction by one thread; the rest by the loop's. Signals may arrive on any.
// Errors: construction throws HostError.
// Complexity: constant.
#pragma once

#include "host/WakeUp.h"

#include <array>
#include <csignal>

namespace nphost {

class Signals {
  public:
    Signals();
    Signals(Signals const&) = delete;
    Signals& operator=(Signals const&) = delete;
    ~Signals();

    int descriptor() const noexcept { return wakeUpM.descriptor(); }

    // Whether there has been one since the last call; signals in quick succession are one.
    bool takeStop() noexcept;
    bool takeReload() noexcept;
    // Waits for the end to be asked for (true) or for `other` to be woken (false), whichever comes first. Signals stay noted
    // for the two above.
    bool awaitStop(WakeUp const& other) const noexcept;

    void clear() const noexcept { wakeUpM.clear(); }

  private:
    static constexpr std::array<int, 4> numbersCM = {SIGTERM, SIGINT, SIGHUP, SIGPIPE};

    WakeUp wakeUpM;
    std::array<struct sigaction, numbersCM.size()> beforeM{};
};

} // namespace nphost
