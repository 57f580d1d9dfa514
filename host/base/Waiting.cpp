#include "host/base/Waiting.h"

#include "host/base/Interruption.h"

#include <cerrno>
#include <poll.h>
#include <unistd.h>

namespace nphost {

bool becomesReady(int descriptor, short events) noexcept {
    // Short, because a signal may be taken by another thread: then nothing ends the wait, and the caller looks for
    // itself.
    constexpr int pollMilliseconds = 100;
    pollfd state = {descriptor, events, 0};
    int const ready = poll(&state, 1, pollMilliseconds);
    return ready > 0 || (ready < 0 && errno != EINTR);
}

int writeWaiting(int descriptor, std::string_view text) {
    while (!text.empty()) {
        ssize_t const written = ::write(descriptor, text.data(), text.size());
        if (written >= 0)
            text.remove_prefix(static_cast<std::size_t>(written));
        else if (errno == EPIPE)
            throw Interrupted{SIGPIPE};
        else if (errno == EAGAIN)
            becomesReady(descriptor, POLLOUT);
        else if (errno != EINTR)
            return errno;
        // After each piece: a reader that takes a little now and then must not keep a signal waiting.
        Interruption::check();
    }
    return 0;
}

std::size_t writeWhole(int descriptor, std::string_view text) noexcept {
    std::size_t done = 0;
    while (done < text.size()) {
        ssize_t const written = ::write(descriptor, text.data() + done, text.size() - done);
        if (written < 0 && errno != EINTR)
            break;
        if (written > 0)
            done += static_cast<std::size_t>(written);
    }
    return done;
}

} // namespace nphost
