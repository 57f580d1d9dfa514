// nphost::ProbeQueue: carries requests to the plug-in's probes, one after the other.
//
// Purpose: the plug-in keeps only the latest of several requests that come before its worker has time. So the next
// probe is written only when the outcome of the one before has been seen. Where the guard is on, a reload or delta is
// written only when its file has passed the check.
// Ownership: borrows the plug-in, the hub and the updates, whose thread makes the checks. The values of the requests are
// its own.
// Threads: the loop's thread.
// Errors: construction throws HostError when the plug-in has not the three probes; std::bad_alloc.
// Complexity: constant; nothing waits for a load or a check.
#pragma once

#include "host/LoadedModule.h"
#include "host/ReportHub.h"
#include "host/UpdateRunner.h"

#include <cstdint>
#include <deque>
#include <filesystem>
#include <optional>
#include <string>

namespace nphost {

struct ProbeRequest {
    ProbeKind kind = ProbeKind::RELOAD;
    std::string value;
    std::uint64_t client = 0; // who waits for the outcome; 0 nobody
    bool fromSignal = false;
    bool force = false; // without a check
};

class ProbeQueue {
  public:
    static constexpr std::size_t mostWaitingCM = 64;

    struct Finished {
        ProbeRequest request;
        ProbeOutcome outcome;
        double seconds = 0; // since its check, if there was one, or else the probe, was its turn
        LoadCheck check;    // of a refused request nothing else was done
    };

    // No listing may replace the data file or the file of the configuration.
    ProbeQueue(LoadedPlugIn& plugIn, std::filesystem::path configuration, ReportHub& hub, UpdateRunner& updates);
    ProbeQueue(ProbeQueue const&) = delete;
    ProbeQueue& operator=(ProbeQueue const&) = delete;
    ~ProbeQueue();

    bool isFull() const { return waitingM.size() >= mostWaitingCM; }
    // Requests that were pushed and are not finished.
    std::size_t length() const { return waitingM.size() + (currentM ? 1 : 0); }

    void push(ProbeRequest request);

    // The request whose outcome has come since the last call, if any; the next one is under way already.
    std::optional<Finished> takeFinished();

    // Requests of a signal that are not finished.
    bool hasSignalRequest() const;
    // The same, of those whose probe is not written yet.
    bool hasWaitingSignalRequest() const;

  private:
    void startNext();
    void askForCheck();
    void writeProbe();
    std::optional<ProbeOutcome> takeOutcome();
    bool refusesTarget();
    void checkTrouble();

    LoadedPlugIn& plugInM;
    std::filesystem::path const configurationM;
    ReportHub& hubM;
    UpdateRunner& updatesM;
    std::vector<BAS::InstrumentationProbeAttribute*> probesM; // by ProbeKind
    std::deque<ProbeRequest> waitingM;
    std::optional<ProbeRequest> currentM;
    ReportHub::Clock::time_point startedM;
    bool checkingM = false; // currentM waits for its check
    LoadCheck checkM;       // currentM's, when it is over
};

} // namespace nphost
