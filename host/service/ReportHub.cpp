#include "host/service/ReportHub.h"

#include <algorithm>
#include <utility>

namespace nphost {

namespace {

// A report is made on the thread whose work it is about: so each piece of work gets its own reports, and without a
// lock.
thread_local ReportCollector* collectorHere = nullptr;

} // namespace

void ReportCollector::add(BAS::Status const& status, LogReport const* shown) noexcept {
    // First, and whatever there is room for: the outcomes of listings and updates hang on these two.
    failureM = failureM || status.severity() >= BAS::Status::MAJOR;
    writeFailureM = writeFailureM || status.identifier().view() == "ERR_WRITE_FILE";
    bool const warning = status.severity() == BAS::Status::WARNING;
    // Rejected lines may be millions. A few stand for all, and leave the room to what else is reported.
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

// Scopes nest: a check has one of its own within that of its job.
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
    }
    wakeUpM.wake();
}

void ReportHub::keep(LogReport const& report) noexcept {
    try {
        recentM.push_back(report);
    } catch (...) {
        return;
    }
    // Only what is kept has a number, so that the numbers of those kept have no gap: since() and last() reckon by that.
    ++nextM;
    if (recentM.size() > recentCM)
        recentM.pop_front();
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

} // namespace nphost
