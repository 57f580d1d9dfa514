// nphost::ChangeNotices: tells the event handler, and so the log, when assignments take effect.
//
// Purpose: for the daemon with announceChanges, or with metrics. A thread of its own looks through the live data for what is to come
// next (UpcomingChanges.h), once after every load, whoever commanded it, and when the list is used up; the event loop
// announces what is due as the event EVT::ASSIGNMENTS_IN_EFFECT: how many, number, network and instant of the first.
// Where nothing is to be announced it only says what is next.
// Ownership: borrows the plug-in and the loop's wake-up. Destruction waits for a search that is under way.
// Threads: the loop's, and the searching one. Look-ups are not held up by a search; an exchange of the data waits for
// it, as for a print. The clocks are called by the loop's thread.
// Errors: construction throws std::system_error when there is no thread; std::bad_alloc. A search that memory did not
// suffice for is reported by the plug-in, and tried again after a minute, or after the next load.
// Complexity: a search is linear in the numbers, a step in what is due; memory is that of UpcomingChanges.
#pragma once

#include "framework/BAS/Mutex.h"
#include "framework/BAS/RegisteredObject.h"
#include "host/base/WakeUp.h"
#include "host/config/Configuration.h"
#include "host/daemon/UpcomingChanges.h"
#include "host/module/LoadedModule.h"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <optional>
#include <thread>

namespace nphost {

class ChangeNotices {
  public:
    //     announceChanges = true   # in [host]: the daemon tells when assignments take effect; false without it
    struct Settings {
        bool announceChanges = false;

        static void declare(Section& host, Configuration& configuration) {
            host.flag("announceChanges", configuration.place<Settings>().announceChanges);
        }
    };

    // What the data's clock shows: now, and at an instant of UTC, in which the plug-in tells when data went live.
    struct Clocks {
        DueChanges::Clock now = BAS::DateTime::now;
        std::function<BAS::DateTime(BAS::DateTime)> at = [](BAS::DateTime utc) { return utc; };
    };

    ChangeNotices(LoadedPlugIn& plugIn, WakeUp const& wakeUp, bool announces, Clocks clocks);
    ChangeNotices(ChangeNotices const&) = delete;
    ChangeNotices& operator=(ChangeNotices const&) = delete;
    ~ChangeNotices();

    // Takes what the search has found, asks for another one after a load, and announces what is due. The loop calls it
    // whenever it is awake, as after every report.
    void step();
    // After how many milliseconds to call step() again, if nothing else wakes the loop; none: no need.
    std::optional<int> patience() const;
    // When assignments take effect next; none when none are to come, and until that is known. After a load it is the
    // old data's until the search has ended.
    std::optional<BAS::DateTime> next() const { return dueM.next(); }

  private:
    struct Found {
        UpcomingChanges changes;
        BAS::DateTime liveSince;
        bool complete = false; // else there is no list
    };

    void run();
    bool nextRequest(BAS::DateTime& after);
    void search(BAS::DateTime after);
    void request(DAT::NumberPortability::ServiceStatus const& status);
    std::optional<Found> takeFound();
    // Until a search that failed is tried again.
    std::uint64_t pauseLeft() const;
    void announce(DueChanges::Notice const& notice);

    LoadedPlugIn& plugInM;
    WakeUp const& wakeUpM;
    BAS::RegisteredObject senderM; // has no name and needs none to send
    bool const announcesM;
    Clocks const clocksM;
    DueChanges dueM;
    std::uint64_t loadsM = 0;               // that had ended when the latest search was asked for
    bool askedM = false;                    // a search is under way
    std::optional<BAS::DateTime> failedAtM; // the latest search

    BAS::Mutex lockM;
    std::condition_variable_any changedM;
    bool stopM NP_GUARDED_BY(lockM) = false;
    std::optional<BAS::DateTime> requestM NP_GUARDED_BY(lockM);
    std::optional<Found> foundM NP_GUARDED_BY(lockM);
    std::thread threadM;
};

} // namespace nphost
