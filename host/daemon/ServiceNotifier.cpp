#include "host/daemon/ServiceNotifier.h"

#include "host/base/Text.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>

namespace nphost {

namespace {

std::string monotonicMicroseconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::to_string(now.tv_sec * 1000000 + now.tv_nsec / 1000);
}

} // namespace

ServiceNotifier::ServiceNotifier() {
    // Read before there are other threads.
    char const* const variable = std::getenv("NOTIFY_SOCKET"); // NOLINT(concurrency-mt-unsafe)
    std::string_view const name = variable == nullptr ? "" : variable;
    // A name of another form is another kind of socket's, which this does not know: nobody is told then.
    if (name.size() < 2 || name.size() >= sizeof addressM.sun_path || (name[0] != '/' && name[0] != '@'))
        return;
    addressM.sun_family = AF_UNIX;
    std::memcpy(addressM.sun_path, name.data(), name.size());
    // An abstract name begins with NUL and has none at its end: the length says where it ends.
    if (name[0] == '@')
        addressM.sun_path[0] = '\0';
    lengthM = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    descriptorM = FileDescriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

void ServiceNotifier::ready(std::string_view status) {
    send("READY=1\n", status);
}

// The manager tells by the time whether a READY that comes later is the answer to this reload.
void ServiceNotifier::reloading(std::string_view status) {
    send("RELOADING=1\nMONOTONIC_USEC=" + monotonicMicroseconds() + "\n", status);
}

void ServiceNotifier::stopping(std::string_view status) {
    send("STOPPING=1\n", status);
}

void ServiceNotifier::status(std::string_view status) {
    send({}, status);
}

// A change of state that is lost may cost the service its life. But a manager that reads nothing is waited for only
// once.
void ServiceNotifier::send(std::string message, std::string_view status) {
    // A second in all.
    constexpr int attempts = 50;
    constexpr int pauseMilliseconds = 20;
    if (!descriptorM)
        return;
    bool const mustArrive = !message.empty();
    message += "STATUS=" + visible(status) + "\n";
    auto const isFull = [&] {
        return sendto(descriptorM.get(), message.data(), message.size(), MSG_NOSIGNAL,
                      reinterpret_cast<sockaddr const*>(&addressM), lengthM) < 0 &&
               errno == EAGAIN;
    };
    bool full = isFull();
    // Not connected, the socket cannot be polled for room in the manager's queue.
    for (int attempt = 0; full && mustArrive && !stuckM && attempt < attempts; ++attempt) {
        poll(nullptr, 0, pauseMilliseconds);
        full = isFull();
    }
    stuckM = full && (mustArrive || stuckM);
}

} // namespace nphost
