#include "host/daemon/Signals.h"

#include <array>
#include <atomic>
#include <csignal>
#include <poll.h>

namespace nphost {

namespace {

// All that a handler touches: lock-free, so safe there.
std::atomic<bool> stopNoted{false};
std::atomic<bool> reloadNoted{false};
std::atomic<WakeUp const*> target{nullptr};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<WakeUp const*>::is_always_lock_free);

extern "C" void noteSignal(int number) {
    (number == SIGHUP ? reloadNoted : stopNoted).store(true);
    if (WakeUp const* const wakeUp = target.load())
        wakeUp->wake();
}

} // namespace

Signals::Signals() {
    target.store(&wakeUpM);
    for (int const number : {SIGTERM, SIGINT, SIGHUP, SIGPIPE}) {
        struct sigaction action = {};
        action.sa_handler = number == SIGPIPE ? SIG_IGN : noteSignal;
        // Reads and writes go on after a handler: what must see the signal waits with poll, which ends in any case. One
        // handler at a time.
        action.sa_flags = SA_RESTART;
        sigfillset(&action.sa_mask);
        sigaction(number, &action, nullptr);
    }
}

// The handlers stay, without anybody to wake: a late signal must not end the process with another status.
Signals::~Signals() {
    target.store(nullptr);
}

bool Signals::takeStop() noexcept {
    return stopNoted.exchange(false);
}

bool Signals::takeReload() noexcept {
    return reloadNoted.exchange(false);
}

// A SIGHUP ends the wait of poll, too, and so does one that has come before: only a stop, or the other, ends this one.
bool Signals::awaitStop(WakeUp const& other) const noexcept {
    std::array<pollfd, 2> polled = {{{wakeUpM.descriptor(), POLLIN, 0}, {other.descriptor(), POLLIN, 0}}};
    do {
        poll(polled.data(), polled.size(), -1);
        wakeUpM.clear();
        if (stopNoted.load())
            return true;
    } while (polled[1].revents == 0);
    return false;
}

} // namespace nphost
