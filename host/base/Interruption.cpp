#include "host/base/Interruption.h"

#include <unistd.h>

namespace nphost {

namespace {

// All that the handler touches: lock-free, so safe there.
std::atomic<int> noted{0};
std::atomic<std::atomic<bool>*> target{nullptr};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<std::atomic<bool>*>::is_always_lock_free);

// A write that began to wait just after the signal must be broken off, too: so there is another one every second.
extern "C" void noteEnd(int number) {
    int none = 0;
    // SIGALRM is this handler's own, and never noted.
    if (number != SIGALRM && !noted.compare_exchange_strong(none, number)) {
        std::signal(number, SIG_DFL);
        std::raise(number); // takes effect when this handler returns
        return;
    }
    if (std::atomic<bool>* const stop = target.load())
        stop->store(true);
    alarm(1);
}

} // namespace

Interruption::Interruption(std::atomic<bool>& stop) {
    noted.store(0);
    // Before the handlers are there, which use it.
    target.store(&stop);
    for (std::size_t i = 0; i < numbersCM.size(); ++i) {
        struct sigaction action = {};
        // Without SA_RESTART: a write that waits for a reader ends.
        action.sa_handler = numbersCM[i] == SIGPIPE ? SIG_IGN : noteEnd;
        sigaction(numbersCM[i], nullptr, &beforeM[i]);
        if (beforeM[i].sa_handler != SIG_IGN || numbersCM[i] == SIGALRM)
            sigaction(numbersCM[i], &action, nullptr);
    }
}

Interruption::~Interruption() {
    // Before the handlers go back to what they were: by default SIGALRM ends the process.
    alarm(0);
    for (std::size_t i = 0; i < numbersCM.size(); ++i)
        sigaction(numbersCM[i], &beforeM[i], nullptr);
    target.store(nullptr);
    noted.store(0);
}

void Interruption::check() {
    if (int const signal = noted.load(std::memory_order_relaxed); signal != 0)
        throw Interrupted{signal};
}

bool Interruption::isNoted() noexcept {
    return noted.load(std::memory_order_relaxed) != 0;
}

void dieOf(int signal) {
    constexpr int shellsOffset = 128; // as shells show a death by signal
    std::signal(signal, SIG_DFL);
    // It may be blocked by whoever started the program.
    sigset_t own;
    sigemptyset(&own);
    sigaddset(&own, signal);
    pthread_sigmask(SIG_UNBLOCK, &own, nullptr);
    std::raise(signal);
    // Only where the signal does not end the process: the kernel spares the first process of a container.
    _exit(shellsOffset + signal);
}

int unlessInterrupted(std::function<int()> const& work) {
    int signal = 0;
    try {
        return work();
    } catch (Interrupted const& interrupted) {
        signal = interrupted.signal;
    }
    dieOf(signal);
}

} // namespace nphost
