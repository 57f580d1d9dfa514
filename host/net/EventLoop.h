// nphost::EventLoop: one thread's wait for descriptors, for times and for other threads.
//
// Purpose: sources say what they wait for, the loop waits for all of them at once, and each then looks at what has
// happened. Other threads, and signals, end the wait by a WakeUp whose source was added; what they have to say lies
// with them, so that nothing need be allocated to say it, and an outcome cannot be lost for want of memory.
// Ownership: borrows its sources, which must outlive it.
// Threads: one thread, the loop's; a WakeUp is woken by any.
// Errors: add throws std::bad_alloc; turn throws nothing of its own: where the system refuses to wait, it lasts a
// moment, and all are taken for ready.
// Complexity: a system call and a call of each source a turn.
#pragma once

#include "host/base/WakeUp.h"

#include <chrono>
#include <cstddef>
#include <optional>
#include <poll.h>
#include <vector>

namespace nphost {

// What poll says of a descriptor that may have been among those that were polled; 0 is nothing.
int happenedTo(int descriptor, std::vector<pollfd> const& polled);

class EventLoop {
  public:
    using Milliseconds = std::chrono::milliseconds;

    class Source {
      public:
        virtual ~Source() = default;
        // How many descriptors collect appends at the most.
        virtual std::size_t mostPolled() const = 0;
        virtual void collect(std::vector<pollfd>& polled) const = 0;
        // How long the wait may last for this source; none is for ever, 0 that there is something to do at once.
        virtual std::optional<Milliseconds> patience() const = 0;
        virtual void serve(std::vector<pollfd> const& polled) = 0;
    };

    void add(Source& source);

    // Waits once, for `patience` at the most, and has every source look.
    void turn(std::optional<Milliseconds> patience);

  private:
    void waitPoorly();

    std::vector<Source*> sourcesM;
    std::vector<pollfd> polledM; // has room for all: a turn allocates nothing
};

// Ends the wait when it is woken, and is quiet again afterwards.
class WakeUpSource : public EventLoop::Source {
  public:
    explicit WakeUpSource(WakeUp const& wakeUp) : wakeUpM(wakeUp) {}

    std::size_t mostPolled() const override { return 1; }
    void collect(std::vector<pollfd>& polled) const override { polled.push_back({wakeUpM.descriptor(), POLLIN, 0}); }
    std::optional<EventLoop::Milliseconds> patience() const override { return std::nullopt; }
    void serve(std::vector<pollfd> const& /*polled*/) override { wakeUpM.clear(); }

  private:
    WakeUp const& wakeUpM;
};

} // namespace nphost
