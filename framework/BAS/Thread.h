// BAS::Thread: a thread that runs a functor and can be interrupted and stopped.
//
// Purpose: runs the worker of a plug-in. Interrupt and cancellation are requests: the running functor services them
// at points of its choosing, so that an action is never cut short.
// Ownership: the creator owns the object; destruction stops the thread. The functor is kept until the thread ended.
// Threads: every operation may be called from any thread, but start and destruction by one at a time.
// Errors: start throws std::system_error when the system grants no thread. Whatever the functor throws ends its
// thread and nothing else.
// Complexity: constant; stop waits for the functor to reach its next service point or to return.
#pragma once

#include "framework/BAS/Mutex.h"

#include <condition_variable>
#include <functional>
#include <thread>

namespace BAS {

class RegisteredObject;

class Thread {
  public:
    // `owner` is the object on whose behalf the thread runs, or null; the framework does not use it.
    explicit Thread(RegisteredObject* owner);
    Thread(Thread const&) = delete;
    Thread& operator=(Thread const&) = delete;
    ~Thread();

    void start(std::function<void()> functor);

    // Requests the cancellation and waits for nothing.
    void cancel();

    // Cancels the thread and waits for its end: when stop returns, the functor no longer runs. Called by the thread
    // itself it only cancels. A thread that never started, or ended, is stopped already.
    void stop();

    // An interrupted thread waits at its next service point until it is resumed or cancelled.
    void interrupt();
    void resume();

    // The object that manages the calling thread, or null for any other thread.
    static Thread* current();

    // For the managed thread itself. serviceInterrupt waits while the thread is interrupted; serviceCancellation
    // ends it by unwinding the functor once a cancellation is pending; sleep ends early when one arrives.
    void serviceInterrupt();
    void serviceCancellation();
    void sleep(unsigned long milliseconds);

    bool cancellationPending();

  private:
    class Cancelled {};

    void run(std::function<void()> const& functor);

    Mutex mutexM;
    std::condition_variable_any changedM;
    bool interruptedM NP_GUARDED_BY(mutexM) = false;
    bool cancelledM NP_GUARDED_BY(mutexM) = false;
    Mutex joinLockM; // one stop at a time joins
    std::thread threadM NP_GUARDED_BY(joinLockM);
};

} // namespace BAS
