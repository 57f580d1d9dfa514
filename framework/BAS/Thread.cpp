#include "framework/BAS/Thread.h"

#include <chrono>

namespace BAS {

namespace {
thread_local Thread* currentThread = nullptr;
} // namespace

Thread::Thread(RegisteredObject*) {}

// The functor refers to this object, so the thread must be over first.
Thread::~Thread() {
    stop();
    MutexGuard const guard(joinLockM);
    if (threadM.joinable()) // destroyed by the thread itself, which cannot wait for its own end
        threadM.detach();
}

void Thread::start(std::function<void()> functor) {
    MutexGuard const guard(joinLockM);
    // Under the lock: a stop that comes at once then finds a thread to wait for.
    threadM = std::thread([this, functor = std::move(functor)] { run(functor); });
}

void Thread::run(std::function<void()> const& functor) {
    // How the functor finds the object that can cancel it; nobody else's thread has one.
    currentThread = this;
    try {
        functor();
    } catch (Cancelled const&) { // NOLINT(bugprone-empty-catch): the thread's regular end
    } catch (...) {              // NOLINT(bugprone-empty-catch): nobody above could take it
    }
    currentThread = nullptr;
}

void Thread::cancel() {
    MutexGuard const guard(mutexM);
    cancelledM = true;
    // For a thread that sleeps or is interrupted: both end with a cancellation.
    changedM.notify_all();
}

void Thread::stop() {
    cancel();
    // A thread that waited for its own end would wait for ever.
    if (currentThread == this)
        return;
    MutexGuard const guard(joinLockM);
    if (threadM.joinable())
        threadM.join();
}

void Thread::interrupt() {
    MutexGuard const guard(mutexM);
    interruptedM = true;
}

void Thread::resume() {
    MutexGuard const guard(mutexM);
    interruptedM = false;
    changedM.notify_all();
}

Thread* Thread::current() {
    return currentThread;
}

void Thread::serviceInterrupt() {
    MutexGuard const guard(mutexM);
    // A cancellation goes before an interruption, or an interrupted thread could not be stopped.
    while (interruptedM && !cancelledM)
        changedM.wait(mutexM);
}

void Thread::serviceCancellation() {
    if (cancellationPending())
        throw Cancelled();
}

void Thread::sleep(unsigned long milliseconds) {
    // An instant and not a length: what wakes the thread without reason does not begin the time anew.
    auto const end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    MutexGuard const guard(mutexM);
    while (!cancelledM && changedM.wait_until(mutexM, end) != std::cv_status::timeout) {
    }
}

bool Thread::cancellationPending() {
    MutexGuard const guard(mutexM);
    return cancelledM;
}

} // namespace BAS
