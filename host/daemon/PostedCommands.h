// nphost::PostedCommands: commands that other threads have posted to the daemon's loop.
//
// Purpose: fronts have threads of their own, and commands are the loop's. They wait here until the loop takes them.
// Ownership: owns what waits. The wake-up is borrowed.
// Threads: post by any, the rest by the loop's.
// Errors: std::bad_alloc.
// Complexity: constant.
#pragma once

#include "framework/BAS/Mutex.h"
#include "host/base/WakeUp.h"
#include "host/service/Front.h"

#include <cstddef>
#include <list>
#include <string>

namespace nphost {

class PostedCommands : public CommandPost {
  public:
    struct Command {
        std::string request;
        Answer answer;
    };
    using Commands = std::list<Command>;

    explicit PostedCommands(WakeUp const& wakeUp) : wakeUpM(wakeUp) {}

    bool post(Kind kind, std::string request, Answer answer) override {
        Commands one;
        one.push_back({std::move(request), std::move(answer)});
        {
            BAS::MutexGuard const guard(lockM);
            Commands& waiting = kind == COMMAND ? commandsM : questionsM;
            if (closedM || waiting.size() >= mostWaitingCM)
                return false;
            waiting.splice(waiting.end(), one);
        }
        wakeUpM.wake();
        return true;
    }

    // The one that waits longest, commands first; none when none waits.
    Commands takeOne() noexcept {
        Commands one;
        BAS::MutexGuard const guard(lockM);
        Commands& waiting = commandsM.empty() ? questionsM : commandsM;
        if (!waiting.empty())
            one.splice(one.end(), waiting, waiting.begin());
        return one;
    }

    // From now on none is taken in.
    void close() noexcept {
        BAS::MutexGuard const guard(lockM);
        closedM = true;
    }

  private:
    static constexpr std::size_t mostWaitingCM = 64; // of a kind

    WakeUp const& wakeUpM;
    BAS::Mutex lockM;
    Commands commandsM NP_GUARDED_BY(lockM);
    Commands questionsM NP_GUARDED_BY(lockM);
    bool closedM NP_GUARDED_BY(lockM) = false;
};

} // namespace nphost
