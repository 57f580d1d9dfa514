#include "framework/BAS/Thread.h"

#include <chrono>

namespace BAS {

namespace {
thread_local Thread* currentThread = nullptr;
} // namespace

Thread::Thread(RegisteredObject*) {}

Thread::~Thread() {
    stop();
    MutexGuard const guard(joinLockM);
    if (threadM.joinable()) // destroyed by the thread itself, which cannot wait for its own end
        threadM.detach();
}

void Thread::start(std::function<void()> functor) {
    MutexGuard const guard(joinLockM);
    threadM = std::thread([this, functor = std::move(functor)] { run(functor); });
}

void Thread::run(std::function<void()> const& functor) {
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
    changedM.notify_all();
}

void Thread::stop() {
    cancel();
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
    while (interruptedM && !cancelledM)
        changedM.wait(mutexM);
}

void Thread::serviceCancellation() {
    if (cancellationPending())
        throw Cancelled();
}

void Thread::sleep(unsigned long milliseconds) {
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
