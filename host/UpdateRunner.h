// nphost::UpdateRunner: carries out registry updates on a thread of its own.
//
// Purpose: an update loads on the thread that commands it, which must not be the event loop's; nor must the check of a
// file that is to be loaded. Where the guard is on, the load of a probe is checked here too, and until that load is over
// the thread does nothing else: so guarded loads come one after the other, whichever way they were commanded.
// Ownership: borrows the plug-in, the guard and the loop's wake-up. Destruction drops updates that have not begun and
// waits for the one that has.
// Threads: construction, push, pushCheck, takeDone, takeCheck, loadEnded and destruction by the loop's thread.
// Errors: construction throws std::system_error when there is no thread; std::bad_alloc.
// Complexity: that of the updates.
#pragma once

#include "framework/BAS/Mutex.h"
#include "host/LoadGuard.h"
#include "host/LoadedModule.h"
#include "host/ReportHub.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <optional>
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
        LoadCheck check; // of the file that it was to load
    };

    // No listing may replace the data file or the file of the configuration.
    UpdateRunner(LoadedPlugIn& plugIn, std::filesystem::path configuration, LoadGuard& guard, WakeUp const& wakeUp);
    UpdateRunner(UpdateRunner const&) = delete;
    UpdateRunner& operator=(UpdateRunner const&) = delete;
    ~UpdateRunner();

    // False when too many wait already. `client` is who is told of the end. A forced update is not checked.
    bool push(std::uint64_t client, Keys keys, bool force);
    std::vector<Done> takeDone();

    bool isGuarding() const { return guardM.isOn(); }
    // Checks the file of a load that somebody else will command: once takeCheck has given the outcome, and only if the
    // check has passed. loadEnded must follow when that load is over. One at a time.
    void pushCheck(LoadKind kind, std::string file, bool force);
    std::optional<LoadCheck> takeCheck();
    void loadEnded();

  private:
    struct Job { // an update, or a check
        std::uint64_t client = 0;
        Keys keys;
        std::optional<LoadKind> check;
        std::string file;
        bool force = false;
    };

    void run();
    bool next(Job& job);
    void add(Job job);
    void update(Job const& job);
    void check(Job const& job);
    bool refusesTarget(BAS::RegistryEntry const& keys);
    LoadCheck checkLoadOf(BAS::RegistryEntry const& keys, bool force);
    void carryOut(Job const& job, Done& done);

    LoadedPlugIn& plugInM;
    std::filesystem::path const configurationM;
    LoadGuard& guardM;
    WakeUp const& wakeUpM;
    BAS::Mutex lockM;
    std::condition_variable_any changedM;
    bool stopM NP_GUARDED_BY(lockM) = false;
    std::deque<Job> waitingM NP_GUARDED_BY(lockM);
    std::vector<Done> doneM NP_GUARDED_BY(lockM);
    std::size_t updatesM NP_GUARDED_BY(lockM) = 0; // of those that wait
    std::optional<LoadCheck> checkedM NP_GUARDED_BY(lockM);
    bool loadingM NP_GUARDED_BY(lockM) = false; // a load that was checked here is not over
    std::thread threadM;
};

} // namespace nphost
