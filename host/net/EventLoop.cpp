#include "host/net/EventLoop.h"

#include <algorithm>
#include <cerrno>

namespace nphost {

int happenedTo(int descriptor, std::vector<pollfd> const& polled) {
    // A few dozen entries at most: a search costs less than an index that must be kept.
    auto const found = std::find_if(polled.begin(), polled.end(),
                                    [descriptor](pollfd const& entry) { return entry.fd == descriptor; });
    return found == polled.end() ? 0 : found->revents;
}

void EventLoop::add(Source& source) {
    // The room is made here, so that a turn allocates nothing: the loop goes on when memory has run out.
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
    // After EINTR the entries still say what collect put there: that nothing has happened.
    if (poll(polledM.data(), polledM.size(), milliseconds) < 0 && errno != EINTR)
        waitPoorly();
    // Every source is asked, also one without an event: time alone may have brought it something to do.
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
