// DAT::NumberPortability::RequestGate: a signal between threads that holds one permit at the most.
//
// Purpose: the hand-off between those who ask for an action and the worker that carries it out. Not a lock: whoever
// closes it need not be the one who opens it, and several openings before the next passage give one passage.
// Ownership: none. Threads: every operation from any thread.
// Errors: none. Complexity: constant; a waiting thread uses no processor time.
#pragma once

#include "framework/BAS/Mutex.h"

#include <condition_variable>

namespace DAT::NumberPortability {

class RequestGate {
  public:
    // Waits until the gate is open, passes and leaves it closed.
    void close() {
        BAS::MutexGuard const guard(mutexM);
        while (!openM)
            openedM.wait(mutexM);
        openM = false;
    }
    // An open gate stays open.
    void open() {
        BAS::MutexGuard const guard(mutexM);
        openM = true;
        openedM.notify_one();
    }

  private:
    BAS::Mutex mutexM;
    std::condition_variable_any openedM;
    bool openM NP_GUARDED_BY(mutexM) = true;
};

} // namespace DAT::NumberPortability
