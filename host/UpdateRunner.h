// nphost::UpdateRunner: carries out registry updates on a thread of its own.
//
// Purpose: an update loads on the thread that commands it, which must not be the event loop's.
// Ownership: borrows the plug-in and the loop's wake-up. Destruction drops updates that have not begun and waits for
// the one that has.
// Threads: construction, push, takeDone and destruction by the loop's thread.
// Errors: construction throws std::system_error when there is no thread; std::bad_alloc.
// Complexity: that of the updates.
#pragma once

#include "framework/BAS/Mutex.h"
#include "host/LoadedModule.h"
#include "host/ReportHub.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace nphost {

class UpdateRunner {
  public:
    static constexpr std::size_t mostWaitingCM = 16;
    using Keys = std::vector<std::pair<std::string, std::string>>;

    struct Done {
        std::uint64_t client = 0;
        bool result = false;
        bool handled = false;
        ReportCollector reports; // of the update's own thread
        double seconds = 0;
    };

    UpdateRunner(LoadedPlugIn& plugIn, WakeUp const& wakeUp);
    UpdateRunner(UpdateRunner const&) = delete;
    UpdateRunner& operator=(UpdateRunner const&) = delete;
    ~UpdateRunner();

    // False when too many wait already. `client` is who is told of the end.
    bool push(std::uint64_t client, Keys keys);

    std::vector<Done> takeDone();

  private:
    struct Job {
        std::uint64_t client;
        Keys keys;
    };

    void run();
    bool next(Job& job);
    bool refusesTarget(BAS::RegistryEntry const& keys);
    Done carryOut(Job const& job);

    LoadedPlugIn& plugInM;
    WakeUp const& wakeUpM;
    BAS::Mutex lockM;
    std::condition_variable_any changedM;
    bool stopM NP_GUARDED_BY(lockM) = false;
    std::deque<Job> waitingM NP_GUARDED_BY(lockM);
    std::vector<Done> doneM NP_GUARDED_BY(lockM);
    std::thread threadM;
};

} // namespace nphost
