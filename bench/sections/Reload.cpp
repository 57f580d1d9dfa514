// Look-ups while a reload runs against look-ups alone.
#include "bench/Caches.h"
#include "bench/Sections.h"

namespace npbench {

namespace {

struct Tail {
    std::vector<double> perSecond, p50, p99, p999;
};

void addTo(Tail& tail, TimedReaders& readers) {
    readers.stop();
    tail.perSecond.push_back(readers.perSecond());
    tail.p50.push_back(readers.times().quantileNs(0.5));
    tail.p99.push_back(readers.times().quantileNs(0.99));
    tail.p999.push_back(readers.times().quantileNs(0.999));
}

void addRow(Table& table, char const* label, Tail const& tail, Tail const& other) {
    table.addRow(label, {cellOfRounds(tail.perSecond, "/s", other.perSecond), cellOfRounds(tail.p50, "ns", other.p50),
                         cellOfRounds(tail.p99, "ns", other.p99), cellOfRounds(tail.p999, "ns", other.p999)});
}

double secondsToReload(CacheManager& cacheManager) {
    auto const begin = std::chrono::steady_clock::now();
    if (!cacheManager.cacheReload(false))
        throw std::runtime_error("a reload failed");
    return secondsSince(begin);
}

} // namespace

Json measureReload(Ground const& ground) {
    std::unique_ptr<CacheManager> const cacheManager = loadedCacheManager(ground.file(Order::SORTED));
    Queries const queries = makeQueries(ground.data(), QueryKind::HIT, ground.settings().queries);
    auto const idleTime = std::chrono::milliseconds(ground.settings().quick ? 300 : 2000);
    Tail idle, busy;
    std::vector<double> alone, beside;
    for (unsigned round = 0; round < ground.settings().rounds; ++round) {
        alone.push_back(secondsToReload(*cacheManager));
        TimedReaders undisturbed(*cacheManager, queries, 1);
        std::this_thread::sleep_for(idleTime);
        addTo(idle, undisturbed);
        TimedReaders disturbed(*cacheManager, queries, 1);
        beside.push_back(secondsToReload(*cacheManager));
        addTo(busy, disturbed);
    }
    Table table("reload", "One thread's look-ups while a reload runs", {"look-ups", "p50", "p99", "p99.9"});
    addRow(table, "alone", idle, idle);
    addRow(table, "during a reload", busy, idle);
    table.addNote("Best-match hits, timed one by one: the clock's cost of " + std::to_string(int(clockCostNs())) +
                  " ns is in both. In parentheses: the multiple of the time, or rate, alone.");
    Table reload("reload-time", "The reload itself (sorted file)", {"time"});
    reload.addRow("alone", {cellOfRounds(alone, "s")});
    reload.addRow("beside look-ups", {cellOfRounds(beside, "s", alone)});
    return Json::array({table.json(), reload.json()});
}

} // namespace npbench
