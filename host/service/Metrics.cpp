#include "host/service/Metrics.h"

#include <algorithm>

namespace nphost {

char const* nameOf(FrontKind front) {
    static constexpr std::array<char const*, frontKindsCM> names = {"control", "http", "enum"};
    return names[static_cast<std::size_t>(front)];
}

char const* nameOf(RequestOutcome outcome) {
    static constexpr std::array<char const*, requestOutcomesCM> names = {"answered", "refused", "denied", "failed"};
    return names[static_cast<std::size_t>(outcome)];
}

char const* nameOf(ConnectionRefusal reason) {
    static constexpr std::array<char const*, connectionRefusalsCM> names = {"too_many", "too_many_of_address",
                                                                            "handshake"};
    return names[static_cast<std::size_t>(reason)];
}

char const* nameOf(ConnectionDrop reason) {
    static constexpr std::array<char const*, connectionDropsCM> names = {"slow_request", "slow_reader"};
    return names[static_cast<std::size_t>(reason)];
}

char const* labelOf(DnsOutcome outcome) {
    static constexpr std::array<char const*, dnsOutcomesCM> names = {"answered",  "nodata",   "nxdomain", "refused",
                                                                     "formerr",   "notimp",   "badvers",  "badcookie",
                                                                     "truncated", "servfail", "silence"};
    return names[static_cast<std::size_t>(outcome)];
}

char const* nameOf(LoadResult result) {
    static constexpr std::array<char const*, loadResultsCM> names = {"succeeded", "failed", "refused"};
    return names[static_cast<std::size_t>(result)];
}

std::size_t DurationBuckets::of(std::chrono::nanoseconds duration) {
    auto const* const border = std::lower_bound(bordersCM.begin(), bordersCM.end(), duration);
    return static_cast<std::size_t>(border - bordersCM.begin());
}

Metrics::Cell::Cell(Metrics& metrics, FrontKind front) : metricsM(metrics), frontM(front) {
    BAS::MutexGuard const guard(metrics.lockM);
    nextM = metrics.firstM;
    if (nextM != nullptr)
        nextM->previousM = this;
    metrics.firstM = this;
}

// In one step for who asks: the counts are never seen twice, nor not at all.
Metrics::Cell::~Cell() {
    BAS::MutexGuard const guard(metricsM.lockM);
    addTo(metricsM.endedM[static_cast<std::size_t>(frontM)]);
    (previousM == nullptr ? metricsM.firstM : previousM->nextM) = nextM;
    if (nextM != nullptr)
        nextM->previousM = previousM;
}

void Metrics::Cell::requestEnded(RequestOutcome outcome, std::chrono::nanoseconds duration) noexcept {
    requestEnded(outcome);
    add(FrontCounts::DURATIONS + DurationBuckets::of(duration), 1);
    add(FrontCounts::NANOSECONDS, static_cast<std::uint64_t>(std::max<std::int64_t>(duration.count(), 0)));
}

void Metrics::Cell::addTo(FrontCounts& sum) const {
    for (std::size_t place = 0; place < placesM.size(); ++place)
        sum.placesM[place] += placesM[place].load(std::memory_order_relaxed);
}

FrontCounts Metrics::counts(FrontKind front) const {
    BAS::MutexGuard const guard(lockM);
    FrontCounts sum = endedM[static_cast<std::size_t>(front)];
    for (Cell const* cell = firstM; cell != nullptr; cell = cell->nextM)
        if (cell->frontM == front)
            cell->addTo(sum);
    return sum;
}

void Metrics::loadEnded(LoadKind kind, LoadResult result, double seconds) {
    BAS::MutexGuard const guard(lockM);
    LoadCounts::Kind& counts = loadsM.kinds[static_cast<std::size_t>(kind)];
    ++counts.results[static_cast<std::size_t>(result)];
    if (result != LoadResult::REFUSED)
        counts.seconds += seconds;
}

void Metrics::guardRefused(LoadKind kind) {
    BAS::MutexGuard const guard(lockM);
    ++loadsM.kinds[static_cast<std::size_t>(kind)].guardRefusals;
}

void Metrics::linesRejected(DAT::NumberPortability::LineCounts const& counts) {
    BAS::MutexGuard const guard(lockM);
    for (std::size_t kind = 0; kind < rejectionKindsCM; ++kind)
        loadsM.rejected[kind] += counts.byOutcome[kind + 1];
}

LoadCounts Metrics::loads() const {
    BAS::MutexGuard const guard(lockM);
    return loadsM;
}

void Metrics::setNextChange(std::optional<BAS::DateTime> at) {
    BAS::MutexGuard const guard(lockM);
    nextChangeM = at;
}

std::optional<BAS::DateTime> Metrics::nextChange() const {
    BAS::MutexGuard const guard(lockM);
    return nextChangeM;
}

} // namespace nphost
