#include "host/service/LoadLane.h"

#include "host/base/GiveWay.h"
#include "host/config/Configuration.h"
#include "host/log/OwnReport.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <exception>
#include <fcntl.h>
#include <new>
#include <unistd.h>

namespace nphost {

namespace {

bool isFromSignal(LoadLane::Job const& job) {
    return job.request.fromSignal;
}

bool hasSignal(LoadLane::Jobs const& jobs) {
    return std::any_of(jobs.begin(), jobs.end(), isFromSignal);
}

std::string const* valueOf(LoadLane::Keys const& keys, char const* name) {
    auto const found = std::find_if(keys.begin(), keys.end(), [name](auto const& key) { return key.first == name; });
    return found == keys.end() ? nullptr : &found->second;
}

// Where a request prints to a file; null when it does not.
std::string const* targetOf(LoadLane::Request const& request) {
    if (request.kind == LoadLane::PRINT)
        return &request.value;
    std::string const* const target = request.kind == LoadLane::UPDATE ? valueOf(request.keys, "PrintData") : nullptr;
    return target == nullptr || target->empty() ? nullptr : target;
}

bool prints(LoadLane::Request const& request) {
    return request.kind == LoadLane::PRINT ||
           (request.kind == LoadLane::UPDATE && valueOf(request.keys, "PrintData") != nullptr);
}

// Names of files are absolute.
bool printsToConsole(LoadLane::Request const& request) {
    std::string const* const target = targetOf(request);
    return prints(request) && (target == nullptr || !target->starts_with('/'));
}

// Which load a request is, if it is one. What the plug-in refuses without loading anything is none.
std::optional<LoadKind> loadOf(LoadLane::Request const& request) {
    if (request.kind == LoadLane::PRINT)
        return std::nullopt;
    if (request.kind != LoadLane::UPDATE)
        return request.kind == LoadLane::RELOAD ? LoadKind::RELOAD : LoadKind::DELTA;
    bool const isReload = valueOf(request.keys, "Reload") != nullptr;
    bool const isDelta = valueOf(request.keys, "AdditionalNumPortData") != nullptr;
    if (isReload == isDelta)
        return std::nullopt;
    return isReload ? LoadKind::RELOAD : LoadKind::DELTA;
}

// The file of a delta; null when the request names none.
std::string const* deltaOf(LoadLane::Request const& request) {
    if (request.kind == LoadLane::UPDATE)
        return valueOf(request.keys, "AdditionalNumPortData");
    return request.kind == LoadLane::DELTA_LOAD ? &request.value : nullptr;
}

DAT::NumberPortability::PlugIn::ProbeMode modeOf(LoadLane::Kind kind) {
    using DAT::NumberPortability::PlugIn;
    static constexpr std::array<PlugIn::ProbeMode, 3> modes = {PlugIn::RELOAD_PROBE, PlugIn::DELTA_LOAD_PROBE,
                                                               PlugIn::PRINT_DATA_PROBE};
    return modes.at(kind);
}

// Ends a write that waits for the reader of the daemon's standard output: what still comes goes nowhere, and the signal
// has the write return.
void letGoOfOutput(pthread_t writer) {
    int const nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere >= 0) {
        dup2(nowhere, STDOUT_FILENO);
        close(nowhere);
    }
    struct sigaction action = {};
    // SIGURG is ignored by default, so one that comes too late does no harm; without SA_RESTART the write returns.
    action.sa_handler = [](int) {};
    sigaction(SIGURG, &action, nullptr);
    pthread_kill(writer, SIGURG);
}

// For the answer as much as for the log; without memory even for that, the outcome alone tells.
void reportFailure(char const* identifier, char const* what) noexcept {
    try {
        reportOwn(identifier, BAS::Status::CRITICAL, {"nphost", what});
    } catch (...) { // NOLINT(bugprone-empty-catch): as said
    }
}

} // namespace

char const* nameOf(LoadLane::Kind kind) {
    static constexpr std::array<char const*, 4> names = {"reload", "delta", "print", "update"};
    return names[kind];
}

LoadLane::LoadLane(LoadedPlugIn& plugIn, KeptFiles kept, DeltaFolders folders, LoadGuard& guard,
                   DataFileState& dataFile, Metrics& metrics, WakeUp const& wakeUp, RereadTables rereadTables)
    : plugInM(plugIn), keptM(std::move(kept)), foldersM(std::move(folders)), guardM(guard), dataFileM(dataFile),
      metricsM(metrics), wakeUpM(wakeUp), rereadTablesM(std::move(rereadTables)) {
    // In the body: the thread uses every member.
    threadM.start([this] { run(); });
}

// All memory is taken here, before the lock: from list to list a job is spliced, which allocates nothing and cannot
// fail. Updates are counted apart, so that neither kind keeps the other out.
bool LoadLane::push(Request request) {
    Jobs job;
    job.emplace_back().request = std::move(request);
    bool const isUpdate = job.front().request.kind == UPDATE;
    {
        BAS::MutexGuard const guard(lockM);
        auto const waiting = std::count_if(waitingM.begin(), waitingM.end(), [isUpdate](Job const& other) {
            return (other.request.kind == UPDATE) == isUpdate;
        });
        // Nobody could be told that a signal's request was refused; its sender sees to it that no more than one waits.
        if (!isFromSignal(job.front()) &&
            static_cast<std::size_t>(waiting) >= (isUpdate ? mostUpdatesCM : mostWaitingCM))
            return false;
        waitingM.splice(waitingM.end(), job);
    }
    changedM.notify_all();
    return true;
}

LoadLane::Jobs LoadLane::takeFinished() noexcept {
    Jobs finished;
    BAS::MutexGuard const guard(lockM);
    finished.swap(finishedM);
    return finished;
}

std::size_t LoadLane::length() const {
    BAS::MutexGuard const guard(lockM);
    return waitingM.size() + currentM.size();
}

// What has ended but was not taken counts, too: nobody has been told of its outcome.
bool LoadLane::hasSignalRequest() const {
    BAS::MutexGuard const guard(lockM);
    return hasSignal(waitingM) || hasSignal(currentM) || hasSignal(finishedM);
}

bool LoadLane::hasWaitingSignalRequest() const {
    BAS::MutexGuard const guard(lockM);
    return hasSignal(waitingM);
}

// What waits for a reader is cancelled, what loads is told to stop; then nothing lasts but a delta's writing of the
// data file and a listing to a file, which are not disturbed.
void LoadLane::stop() {
    constexpr std::chrono::milliseconds pause{100};
    {
        BAS::MutexGuard const guard(lockM);
        stopM = true;
        waitingM.clear();
    }
    changedM.notify_all();
    guardM.stop();
    threadM.cancel();
    // The signal is sent again and again: one that comes just before the write begins to wait does not end it.
    while (!awaitEnd(pause)) {
        BAS::MutexGuard const guard(lockM);
        if (!laneM || currentM.empty() || !prints(currentM.front().request) || plugInM.serviceStatus().loading)
            continue;
        // finish makes a failure of it: part of the listing went nowhere.
        outputLostM = printsToConsole(currentM.front().request);
        letGoOfOutput(*laneM);
    }
    threadM.stop();
}

bool LoadLane::awaitEnd(std::chrono::milliseconds time) {
    auto const end = std::chrono::steady_clock::now() + time;
    BAS::MutexGuard const guard(lockM);
    while (laneM && changedM.wait_until(lockM, end) != std::cv_status::timeout) {
    }
    return !laneM;
}

// The lane's thread. Its name for stop is withdrawn under the lock before it ends: no signal goes to a thread that is
// gone.
void LoadLane::run() {
    giveWay();
    setLane(pthread_self());
    while (Job* const job = next()) {
        perform(*job);
        finish();
    }
    setLane(std::nullopt);
}

void LoadLane::setLane(std::optional<pthread_t> lane) {
    BAS::MutexGuard const guard(lockM);
    laneM = lane;
    changedM.notify_all();
}

LoadLane::Job* LoadLane::next() {
    BAS::MutexGuard const guard(lockM);
    while (!stopM && waitingM.empty())
        changedM.wait(lockM);
    if (stopM)
        return nullptr;
    // A list's element keeps its address: the lane works on the job without the lock, for everybody else asks for no
    // more than its request, which does not change.
    currentM.splice(currentM.end(), waitingM, waitingM.begin());
    return &currentM.front();
}

void LoadLane::finish() {
    {
        BAS::MutexGuard const guard(lockM);
        currentM.front().succeeded = currentM.front().succeeded && !outputLostM;
        finishedM.splice(finishedM.end(), currentM);
    }
    wakeUpM.wake();
}

// Cheap refusals come before the check, which reads the file. The release comes last and always: else the module would
// go on refusing every other version of the file.
void LoadLane::perform(Job& job) noexcept {
    auto const begin = ReportHub::Clock::now();
    ReportHub::CollectingScope const scope(job.reports);
    try {
        bool const fresh = loadOf(job.request) != LoadKind::RELOAD || rereadTablesM();
        if (!refusesTarget(job.request) && !liesElsewhere(job.request)) {
            job.check = check(job.request);
            if (job.check.passed && !refusesDelta(job.request)) // last, for a check takes its time
                command(job);
        }
        job.succeeded = job.succeeded && fresh;
    } catch (std::bad_alloc const&) {
        reportFailure("ERR_OUT_OF_MEMORY", "");
    } catch (std::exception const& error) {
        reportFailure("ERR_UNEXPECTED", error.what());
    }
    guardM.ended();
    job.seconds = std::chrono::duration<double>(ReportHub::Clock::now() - begin).count();
    measure(job);
}

// A check that a stop has cut short says nothing about the file.
void LoadLane::measure(Job const& job) {
    std::optional<LoadKind> const kind = loadOf(job.request);
    if (!kind || job.check.stopped)
        return;
    if (job.check.guarded && !job.check.passed)
        metricsM.guardRefused(*kind);
    metricsM.loadEnded(*kind,
                       !job.commanded  ? LoadResult::REFUSED
                       : job.succeeded ? LoadResult::SUCCEEDED
                                       : LoadResult::FAILED,
                       job.seconds);
}

// The name was checked when the request came, but what it means may have changed while the request waited.
bool LoadLane::refusesTarget(Request const& request) const {
    std::string const* const target = targetOf(request);
    char const* const kept = target == nullptr ? nullptr : keptM.nameOf(*target);
    if (kept != nullptr)
        reportPrintRefused(*target, kept);
    return kept != nullptr;
}

// Its folder was checked when the request came. From here on the module reads the file that lies there now and no
// other, be it for a check or for the load, whatever the name comes to mean.
bool LoadLane::liesElsewhere(Request const& request) {
    std::string const* const file = deltaOf(request);
    if (file == nullptr)
        return false;
    auto const found = foldersM.find(*file);
    if (found.version)
        plugInM.expectFile(BAS::String(*file), *found.version);
    else
        reportOwn("ERR_HOST_DELTA_REFUSED", BAS::Status::MAJOR, {BAS::String(*file), BAS::String(found.refusal)});
    return !found.version;
}

bool LoadLane::refusesDelta(Request const& request) {
    return loadOf(request) == LoadKind::DELTA && dataFileM.refusesDelta(*deltaOf(request), request.force);
}

LoadCheck LoadLane::check(Request const& request) {
    std::optional<LoadKind> const kind = loadOf(request);
    if (kind == LoadKind::RELOAD)
        return guardM.check(LoadKind::RELOAD, keptM.dataFile.native(), request.force);
    if (kind == LoadKind::DELTA)
        return guardM.check(LoadKind::DELTA, *deltaOf(request), request.force);
    LoadCheck none;
    none.passed = true;
    return none;
}

// The plug-in counts a delta without its rewrite as loaded.
void LoadLane::command(Job& job) {
    std::uint64_t const loads = plugInM.serviceStatus().loads;
    job.commanded = true;
    job.succeeded = succeeds(job);
    DAT::NumberPortability::ServiceStatus const status = plugInM.serviceStatus();
    if (loadOf(job.request) == LoadKind::DELTA && status.unsaved)
        job.succeeded = false;
    // Where the plug-in refused to load anything, the last load is still the one before.
    if (status.loads != loads)
        metricsM.linesRejected(status.lastLoad.counts);
    if (loadOf(job.request) == LoadKind::DELTA)
        count(job);
}

void LoadLane::count(Job& job) {
    DAT::NumberPortability::LoadOutcome const load = plugInM.serviceStatus().lastLoad;
    std::string const& file = *deltaOf(job.request);
    // The last load may be another's: client modules, and probes, load past the lane.
    job.isDelta = load.kind == DAT::NumberPortability::LoadOutcome::DELTA_LOAD && load.succeeded &&
                  load.fileName == BAS::String(file);
    if (!job.isDelta)
        return;
    job.added = load.lines - load.counts.rejected;
    job.known = load.counts.duplicates;
    reportOwn("INF_HOST_DELTA_LOADED", BAS::Status::NORMAL,
              {BAS::String(std::to_string(job.added)), BAS::String(std::to_string(job.known)), BAS::String(file)});
}

// The plug-in counts a listing that could not be written as made.
bool LoadLane::succeeds(Job& job) {
    if (job.request.kind == UPDATE)
        // An update may make several steps, and its result does not tell of each; a failure that was reported does.
        return update(job) && !job.reports.hasFailure();
    return plugInM.carryOut(modeOf(job.request.kind), BAS::String(job.request.value)) && !job.reports.hasWriteFailure();
}

bool LoadLane::update(Job& job) {
    BAS::RegistryEntry keys{BAS::String(plugInNameCM)};
    for (auto const& [key, value] : job.request.keys)
        keys.append(BAS::RegistryEntry(BAS::String(key), BAS::String(value)));
    BAS::ProtectedBool handled;
    job.result = plugInM.update(keys, handled);
    job.handled = handled.get();
    return job.result && job.handled;
}

} // namespace nphost
