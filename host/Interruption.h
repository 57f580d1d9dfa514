// nphost::Interruption: a command that is told to end, or whose reader has gone, removes its temporary files first.
//
// Purpose: while the object lives, SIGINT, SIGTERM, SIGHUP and SIGQUIT end the process no more: the handler notes the
// first one and sets the flag of whoever reads input; check throws Interrupted where work can stop. The stack unwinds,
// which removes temporary files, and dieOf ends the process by the same signal, so that its parent sees what happened,
// and SIGQUIT dumps core. A second one of the four, whichever, ends it at once. One that was ignored before stays so
// (nohup). SIGPIPE is ignored: writing without a reader is an error and no signal; for SIGXFSZ main.cpp sees to that.
// SIGALRM is the object's own. A signal behind the last check is lost: the work is done by then.
// Ownership: borrows the flag; there is one object in a process at a time. Destruction puts the handlers back.
// Threads: construction and destruction by one thread, best the main one, whose blocked writes a signal then breaks
// off; check by any.
// Errors: none of its own.
// Complexity: constant.
#pragma once

#include <array>
#include <atomic>
#include <csignal>
#include <functional>

namespace nphost {

// A signal is to end the process once the stack is unwound. Nobody catches it but unlessInterrupted.
struct Interrupted {
    int signal;
};

class Interruption {
  public:
    // `stop` becomes true with the signal.
    explicit Interruption(std::atomic<bool>& stop);
    Interruption(Interruption const&) = delete;
    Interruption& operator=(Interruption const&) = delete;
    ~Interruption();

    // Throws Interrupted when a signal was noted; without an object never.
    static void check();
    static bool isNoted() noexcept;

  private:
    static constexpr std::array<int, 6> numbersCM = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGALRM};

    std::array<struct sigaction, numbersCM.size()> beforeM{};
};

// Ends the process as the signal does when nobody handles it, also where it is ignored or blocked.
[[noreturn]] void dieOf(int signal);

// What `work` returns, or dieOf when it was interrupted.
int unlessInterrupted(std::function<int()> const& work);

} // namespace nphost
