#include "host/service/LoadGuard.h"

#include "host/base/ResidentMemory.h"
#include "host/base/Text.h"
#include "host/log/OwnReport.h"
#include "host/module/Examination.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <new>
#include <utility>

namespace nphost {

namespace {

using DAT::NumberPortability::DataSummary;
using DAT::NumberPortability::ServiceStatus;

BAS::String secondsText(double seconds) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.3f", seconds);
    return BAS::String(text.data());
}

BAS::String countText(std::uint64_t number) {
    return BAS::String(std::to_string(number));
}

} // namespace

LoadGuard::LoadGuard(GuardLimits const& limits, LoadedPlugIn& plugIn, Log const& log)
    : limitsM(limits), plugInM(plugIn), logM(log) {}

// On the lane's thread, and at the start on the first load's. Want of memory while it reads is an outcome.
LoadCheck LoadGuard::check(LoadKind kind, std::string const& file, bool force) {
    LoadCheck check;
    check.kind = kind;
    check.guarded = limitsM.askedOf(kind).any();
    check.forced = check.guarded && force;
    check.cursory = limitsM.askedOf(kind).onlyAnyRecord();
    check.passed = !check.guarded || check.forced;
    if (!check.guarded)
        return check;
    check.file = file;
    // Around it lies the scope of the job, which gets what the load reports afterwards.
    ReportHub::CollectingScope const scope(check.reports);
    if (!check.forced)
        carryOut(check);
    check.ended = BAS::DateTime::now();
    report(check);
    // A check that a stop has cut short says nothing about the file. The refusal is kept for as long as the daemon
    // runs, so it goes without its reports; they are in the answer to who asked for the load.
    if (!check.passed && !check.stopped) {
        check.loads = plugInM.serviceStatus().loads;
        LoadCheck refusal = check;
        refusal.reports = ReportCollector();
        BAS::MutexGuard const guard(lockM);
        standingM.lastRefusal = std::move(refusal);
    }
    return check;
}

void LoadGuard::ended() {
    // Whatever became of the load: a version that stays bound would refuse the next one.
    plugInM.expectAnyFile();
}

void LoadGuard::stop() {
    stopM.store(true); // first: a check that the plug-in breaks off asks why
    plugInM.stopLoads();
}

LoadGuard::Standing LoadGuard::standing() const {
    BAS::MutexGuard const guard(lockM);
    return standingM;
}

void LoadGuard::carryOut(LoadCheck& check) {
    Checking const shown(*this, check.file);
    auto const begin = ReportHub::Clock::now();
    try {
        DataSummary const summary = examineFile(check);
        // Asked when the reading is over: a stop during it is what ended it.
        check.stopped = stopM.load();
        check.reasons = faults(check, summary.changed);
        check.passed = check.reasons.empty();
        // Bound at once, so that the module cannot be given another file between check and load.
        if (check.passed)
            plugInM.expectFile(BAS::String(check.file), summary.version);
    } catch (std::bad_alloc const&) {
        check.passed = false;
        check.reasons = {"memory did not suffice for the check"};
    }
    check.seconds = std::chrono::duration<double>(ReportHub::Clock::now() - begin).count();
}

LoadGuard::Checking::Checking(LoadGuard& owner, std::string const& file) : ownerM(owner) {
    BAS::MutexGuard const guard(ownerM.lockM);
    ownerM.standingM.checking = file;
}

LoadGuard::Checking::~Checking() {
    BAS::MutexGuard const guard(ownerM.lockM);
    ownerM.standingM.checking.reset();
}

DataSummary LoadGuard::examineFile(LoadCheck& check) {
    DataSummary summary;
    std::string first;
    // mayGoOn needs it while the file is read; it is asked again at the end.
    check.figures.liveTreeBytes = plugInM.serviceStatus().treeBytes;
    check.examined = examine(
        plugInM, logM, check.file, summary,
        [&first](RejectedLine const& line) {
            if (first.empty())
                first = inWords(line);
        },
        [&](std::uint64_t treeBytes) {
            bool const suffices = check.cursory && summary.records > 0;
            return !suffices && mayGoOn(check, treeBytes);
        });
    check.figures = figuresOf(summary, std::move(first));
    ServiceStatus const status = plugInM.serviceStatus(); // another load may have ended meanwhile
    check.figures.liveRecords = status.records;
    check.figures.liveTreeBytes = status.treeBytes;
    // The live data are two trees. What these have mapped need not all be resident, so the difference may be below 0.
    std::uint64_t const resident = residentBytes();
    check.figures.otherBytes = resident - std::min(resident, 2 * status.treeBytes);
    return summary;
}

// The check must not take the memory itself that it is to save.
bool LoadGuard::mayGoOn(LoadCheck const& check, std::uint64_t treeBytes) const {
    LoadFigures soFar;
    soFar.liveTreeBytes = check.figures.liveTreeBytes;
    soFar.treeBytes = treeBytes;
    // A reload keeps the lines in memory. Their sum is not known before the end; the file's size stands for it.
    soFar.lineBytes = plugInM.progress()->totalBytes();
    return hasRoom(limitsM, check.kind, soFar);
}

// The cause comes before what follows from it: a check that was stopped has not read to the end either.
std::vector<std::string> LoadGuard::faults(LoadCheck const& check, bool changed) const {
    if (check.stopped)
        return {"the daemon stops"};
    if (!check.examined)
        return {"the file could not be read to its end"};
    if (changed)
        return {"the file changed while it was checked"};
    return crossedLimits(limitsM, check.kind, check.figures);
}

// A reason a report: each may need the length that the log shows of an argument.
void LoadGuard::report(LoadCheck const& check) {
    BAS::String const kind(nameOf(check.kind));
    BAS::String const file(check.file);
    if (check.forced)
        return reportOwn("INF_HOST_GUARD_FORCED", BAS::Status::WARNING, {kind, file});
    if (check.passed && check.cursory)
        return; // nobody asked for it
    if (check.passed)
        return reportOwn("INF_HOST_GUARD_PASSED", BAS::Status::NORMAL,
                         {kind, file, secondsText(check.seconds), countText(check.figures.records),
                          countText(check.figures.lines), countText(check.figures.rejected),
                          countText(mebibytes(memoryAtPeak(check.kind, check.figures)))});
    if (check.stopped)
        return reportOwn("INF_HOST_GUARD_STOPPED", BAS::Status::NORMAL, {kind, file});
    for (std::string const& reason : check.reasons)
        reportOwn("ERR_HOST_GUARD_REFUSED", BAS::Status::MAJOR,
                  {kind, file, BAS::String(reason), secondsText(check.seconds)});
}

} // namespace nphost
