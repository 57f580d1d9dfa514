#include "host/ReportHub.h"

#include <algorithm>
#include <array>
#include <utility>

namespace nphost {

namespace {

thread_local ReportCollector* collectorHere = nullptr;

struct Ending {
    ProbeKind kind;
    std::string_view identifier;
    bool succeeded;
};

// What the worker says last about a request.
constexpr std::array<Ending, 6> endingsCM = {{
    {ProbeKind::RELOAD, "EVT::RELOAD_SUCCESSFUL", true},
    {ProbeKind::RELOAD, "EVT::RELOAD_FAILED", false},
    {ProbeKind::DELTA_LOAD, "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL", true},
    {ProbeKind::DELTA_LOAD, "EVT::ADD_NUM_PORT_DATA_FAILED", false},
    {ProbeKind::PRINT, "INF_NUM_PORT_PRINT_DATA", true},
    {ProbeKind::PRINT, "ERR_NUM_PORT_PRINT_DATA", false},
}};

bool isTrouble(std::string_view identifier) {
    return identifier == "ERR_OUT_OF_MEMORY" || identifier == "ERR_UNEXPECTED";
}

} // namespace

void ReportCollector::add(BAS::Status const& status, LogReport const* shown) noexcept {
    failureM = failureM || status.severity() >= BAS::Status::MAJOR;
    writeFailureM = writeFailureM || status.identifier().view() == "ERR_WRITE_FILE";
    bool const warning = status.severity() == BAS::Status::WARNING;
    bool const tooMany = warning ? ++warningsM > mostWarningsCM : reportsM.size() >= mostReportsCM;
    if (tooMany || shown == nullptr) {
        ++leftOutM;
        return;
    }
    try {
        reportsM.push_back(*shown);
    } catch (...) {
        ++leftOutM;
    }
}

ReportHub::CollectingScope::CollectingScope(ReportCollector& collector)
    : beforeM(std::exchange(collectorHere, &collector)) {}

ReportHub::CollectingScope::~CollectingScope() {
    collectorHere = beforeM;
}

// A data line may be of any length, and a thousand reports are kept: only the beginning of each text is.
void ReportHub::noticed(BAS::Status const& status, LogReport const* whole) noexcept {
    LogReport report;
    LogReport const* shown = nullptr;
    try {
        if (whole != nullptr) {
            report = abridged(*whole);
            shown = &report;
        }
    } catch (...) { // NOLINT(bugprone-empty-catch): counted as not kept
    }
    if (collectorHere != nullptr)
        collectorHere->add(status, shown);
    {
        BAS::MutexGuard const guard(lockM);
        if (shown != nullptr)
            keep(*shown);
        if (expectedM && !endedM && isWorkerM && isWorkerM())
            noticeWorker(status, shown);
    }
    wakeUpM.wake();
}

void ReportHub::keep(LogReport const& report) noexcept {
    try {
        recentM.push_back(report);
    } catch (...) {
        return;
    }
    ++nextM;
    if (recentM.size() > recentCM)
        recentM.pop_front();
}

void ReportHub::noticeWorker(BAS::Status const& status, LogReport const* shown) {
    workerM.add(status, shown);
    std::string_view const identifier = status.identifier().view();
    if (isTrouble(identifier))
        troubleM = Clock::now();
    for (Ending const& ending : endingsCM)
        if (ending.kind == *expectedM && ending.identifier == identifier)
            endedM = ending.succeeded && !workerM.hasWriteFailure();
}

ReportHub::Recent ReportHub::since(std::uint64_t number) const {
    BAS::MutexGuard const guard(lockM);
    std::uint64_t const first = nextM - recentM.size();
    Recent recent;
    recent.next = nextM;
    recent.lost = number < first ? first - number : 0;
    auto const skipped = std::min(std::max(number, first), nextM) - first;
    recent.reports.assign(recentM.begin() + static_cast<std::ptrdiff_t>(skipped), recentM.end());
    return recent;
}

std::uint64_t ReportHub::last(std::size_t count) const {
    BAS::MutexGuard const guard(lockM);
    return nextM - std::min(count, recentM.size());
}

void ReportHub::recogniseWorker(std::function<bool()> isWorker) {
    BAS::MutexGuard const guard(lockM);
    isWorkerM = std::move(isWorker);
}

void ReportHub::expect(ProbeKind kind) {
    BAS::MutexGuard const guard(lockM);
    expectedM = kind;
    endedM.reset();
    troubleM.reset();
    workerM = ReportCollector();
}

std::optional<ProbeOutcome> ReportHub::takeOutcome() {
    BAS::MutexGuard const guard(lockM);
    if (!endedM)
        return std::nullopt;
    ProbeOutcome outcome{*endedM, std::move(workerM)};
    expectedM.reset();
    endedM.reset();
    workerM = ReportCollector();
    return outcome;
}

std::optional<ReportHub::Clock::time_point> ReportHub::troubleTime() const {
    BAS::MutexGuard const guard(lockM);
    return endedM ? std::nullopt : troubleM;
}

void ReportHub::giveUp() {
    BAS::MutexGuard const guard(lockM);
    if (expectedM && !endedM)
        endedM = false;
}

} // namespace nphost
