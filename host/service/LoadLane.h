// nphost::LoadLane: carries out what changes or lists the data, one request after the other.
//
// Purpose: reloads, deltas, listings and updates of the daemon, of its clients and of SIGHUP, in the order of their
// arrival. A thread of its own does for each: check (the target of a listing; the guard, which binds the file's
// version; whether a delta may rewrite the data file), command, and so wait, release the file; then the job has its
// outcome and the event loop is woken. Outcomes are what the plug-in's operations return. Reports are collected on the
// lane's own thread, and only to be shown.
// Ownership: borrows the plug-in, the guard, the state of the data file, the metrics and the loop's wake-up. A job is made when its
// request is accepted and moves as a whole from the queue to the finished ones, so memory that runs out meanwhile
// cannot lose it.
// Threads: push, takeFinished, stop and the questions by the loop's thread. The plug-in is commanded on the lane's,
// which is a BAS::Thread, so that a listing into a pipe that nobody reads can be given up.
// Errors: construction throws std::system_error when there is no thread; push std::bad_alloc. Whatever goes wrong
// with a job is its outcome.
// Complexity: that of the loads; linear in the jobs for the questions.
#pragma once

#include "framework/BAS/Mutex.h"
#include "framework/BAS/Thread.h"
#include "host/module/LoadedModule.h"
#include "host/records/SameFile.h"
#include "host/service/DataFileState.h"
#include "host/service/DeltaFolders.h"
#include "host/service/LoadGuard.h"
#include "host/service/Metrics.h"
#include "host/service/ReportHub.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <pthread.h>
#include <string>
#include <utility>
#include <vector>

namespace nphost {

class LoadLane {
  public:
    enum Kind { RELOAD, DELTA_LOAD, PRINT, UPDATE };
    using Keys = std::vector<std::pair<std::string, std::string>>;

    static constexpr std::size_t mostWaitingCM = 64; // beside updates
    static constexpr std::size_t mostUpdatesCM = 16; // that wait

    struct Request {
        Kind kind = RELOAD;
        std::string value;        // as a probe of that kind takes it
        Keys keys;                // of an update
        std::uint64_t client = 0; // who waits for the outcome; 0 nobody
        bool fromSignal = false;
        bool force = false; // without a check
    };
    struct Job {
        Request request;
        bool succeeded = false;
        bool commanded = false; // it was not refused before
        bool result = false;    // of an update: what it returned,
        bool handled = false;   // and whether a key was a command
        double seconds = 0;     // since its turn came
        LoadCheck check;        // of a file that has not passed nothing was loaded
        bool isDelta = false;   // that was loaded: these many records were added, these many known already
        std::uint64_t added = 0;
        std::uint64_t known = 0;
        ReportCollector reports;
    };
    using Jobs = std::list<Job>;

    // Reads again what goes with the data and stands in files of its own, as every reload does; false, and reported, when
    // something cannot be taken: then the old serves on, and the reload, though it goes on, is no success.
    using RereadTables = std::function<bool()>;

    // No listing may replace a kept file; the data file among them is what a reload loads. Deltas come from the
    // folders.
    LoadLane(LoadedPlugIn& plugIn, KeptFiles kept, DeltaFolders folders, LoadGuard& guard, DataFileState& dataFile,
             Metrics& metrics, WakeUp const& wakeUp, RereadTables rereadTables);
    LoadLane(LoadLane const&) = delete;
    LoadLane& operator=(LoadLane const&) = delete;
    ~LoadLane() { stop(); }

    // False when too many of the kind wait already; a signal's request is always taken.
    bool push(Request request);
    // Those that have ended since the last call.
    Jobs takeFinished() noexcept;

    // Jobs that have not ended.
    std::size_t length() const;
    // A signal's request is not taken as finished; or has not even begun.
    bool hasSignalRequest() const;
    bool hasWaitingSignalRequest() const;

    KeptFiles const& keptFiles() const { return keptM; }
    DeltaFolders const& deltaFolders() const { return foldersM; }

    // Breaks off the job under way, drops those that wait, and returns when the lane has ended. A delta that is live
    // already still writes the data file. Nothing is loaded afterwards, whoever asks for it.
    void stop();

  private:
    void run();
    void setLane(std::optional<pthread_t> lane);
    Job* next();
    void finish();
    bool awaitEnd(std::chrono::milliseconds time);
    void perform(Job& job) noexcept;
    bool refusesTarget(Request const& request) const;
    bool liesElsewhere(Request const& request);
    bool refusesDelta(Request const& request);
    bool succeeds(Job& job);
    LoadCheck check(Request const& request);
    void command(Job& job);
    bool update(Job& job);
    void count(Job& job);
    void measure(Job const& job);

    LoadedPlugIn& plugInM;
    KeptFiles const keptM;
    DeltaFolders const foldersM;
    LoadGuard& guardM;
    DataFileState& dataFileM;
    Metrics& metricsM;
    WakeUp const& wakeUpM;
    RereadTables const rereadTablesM;

    mutable BAS::Mutex lockM;
    std::condition_variable_any changedM;
    Jobs waitingM NP_GUARDED_BY(lockM);
    Jobs currentM NP_GUARDED_BY(lockM); // at most one, the lane's but for its request
    Jobs finishedM NP_GUARDED_BY(lockM);
    bool stopM NP_GUARDED_BY(lockM) = false;
    bool outputLostM NP_GUARDED_BY(lockM) = false;       // what the job under way prints to the console goes nowhere
    std::optional<pthread_t> laneM NP_GUARDED_BY(lockM); // while it runs
    BAS::Thread threadM{nullptr};
};

char const* nameOf(LoadLane::Kind kind);

} // namespace nphost
