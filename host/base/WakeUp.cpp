#include "host/base/WakeUp.h"

#include "host/base/HostError.h"

#include <cerrno>
#include <cstdint>
#include <sys/eventfd.h>
#include <system_error>

namespace nphost {

WakeUp::WakeUp() : descriptorM(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!descriptorM)
        throw HostError("no descriptor for the event loop: " + std::system_category().message(errno));
}

// A counter that is full or empty already needs nothing more.
void WakeUp::wake() const noexcept {
    int const error = errno; // a signal handler must not change it
    std::uint64_t const one = 1;
    [[maybe_unused]] ssize_t const written = ::write(descriptorM.get(), &one, sizeof one);
    errno = error;
}

void WakeUp::clear() const noexcept {
    // One reading takes all wakes so far.
    std::uint64_t count = 0;
    [[maybe_unused]] ssize_t const taken = ::read(descriptorM.get(), &count, sizeof count);
}

} // namespace nphost
