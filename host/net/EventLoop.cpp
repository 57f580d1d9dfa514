#include "host/net/EventLoop.h"

#include <algorithm>
#include <cerrno>

namespace nphost {

int happenedTo(int descriptor, std::vector<pollfd> const& polled) {
    auto const found = std::find_if(polled.begin(), polled.end(),
                                    [descriptor](pollfd const& entry) { return entry.fd == descriptor; });
    return found == polled.end() ? 0 : found->revents;
}

void EventLoop::add(Source& source) {
    polledM.reserve(polledM.capacity() + source.mostPolled());
    sourcesM.push_back(&source);
}

void EventLoop::turn(std::optional<Milliseconds> patience) {
    polledM.clear();
    for (Source* const source : sourcesM) {
        source->collect(polledM);
        if (std::optional<Milliseconds> const own = source->patience())
            patience = std::min(*own, patience.value_or(*own));
    }
    int const milliseconds = patience ? static_cast<int>(patience->count()) : -1; // -1: for ever
    if (poll(polledM.data(), polledM.size(), milliseconds) < 0 && errno != EINTR)
        waitPoorly();
    for (Source* const source : sourcesM)
        source->serve(polledM);
}

// When the limit of descriptors was lowered below what is open, or the system is short of memory: whoever waits must go
// on. Nothing blocks that is taken for ready.
void EventLoop::waitPoorly() {
    constexpr int milliseconds = 100;
    poll(nullptr, 0, milliseconds);
    for (pollfd& entry : polledM)
        entry.revents = entry.events;
}

} // namespace nphost
