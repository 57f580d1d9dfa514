// The lock alone, and the throughput of several threads against one.
#include "bench/Caches.h"
#include "bench/Sections.h"

#include <barrier>
#include <shared_mutex>

namespace npbench {

namespace {

// Runs work(thread) in so many threads at once; seconds until the last is done.
template <class Work>
double secondsOf(unsigned threads, Work work) {
    std::barrier start(static_cast<std::ptrdiff_t>(threads) + 1);
    std::vector<std::thread> running;
    for (unsigned i = 0; i < threads; ++i)
        running.emplace_back([&, i] {
            start.arrive_and_wait();
            work(i);
        });
    auto const begin = std::chrono::steady_clock::now(); // before: once they run, this thread may have to wait
    start.arrive_and_wait();
    for (std::thread& thread : running)
        thread.join();
    return secondsSince(begin);
}

template <class Pair>
double nanosecondsOfPair(unsigned threads, std::size_t pairs, Pair pair) {
    double const seconds = secondsOf(threads, [&](unsigned) {
        for (std::size_t i = 0; i < pairs; ++i)
            pair();
    });
    return seconds * 1e9 / static_cast<double>(pairs);
}

struct LockTimes {
    std::vector<double> ours, shared;
};

void timeLocks(unsigned threads, std::size_t pairs, LockTimes& times) {
    static RWReadersWriterLock lock;
    static std::shared_mutex mutex;
    times.ours.push_back(nanosecondsOfPair(threads, pairs, [] { RWReadersWriterLock::ReadGuard const guard(lock); }));
    times.shared.push_back(
        nanosecondsOfPair(threads, pairs, [] { std::shared_lock<std::shared_mutex> const guard(mutex); }));
}

enum class Way { SINGLE, BATCH };

constexpr std::size_t BATCH = 32;

void lookAll(CacheManager& cacheManager, Queries const& queries, Way way, std::size_t begin, std::size_t end) {
    std::array<DAT::NumberPortability::NumberPortabilityData, BATCH> out;
    std::array<bool, BATCH> found{};
    if (way == Way::SINGLE)
        for (std::size_t i = begin; i < end; ++i)
            cacheManager.search(queries.numbers[i], queries.instants[i], out[0], NumberPortabilityTree::BEST_MATCH);
    else
        for (std::size_t i = begin; i + BATCH <= end; i += BATCH)
            cacheManager.search(std::span(queries.numbers).subspan(i, BATCH),
                                std::span(queries.instants).subspan(i, BATCH), out, found,
                                NumberPortabilityTree::BEST_MATCH);
}

// Look-ups a second, of all threads together; each makes a part of the queries of its own, again and again, so that
// it makes as many as one alone does.
double throughput(CacheManager& cacheManager, Queries const& queries, Way way, unsigned threads) {
    std::size_t const part = queries.size() / threads / BATCH * BATCH;
    double const seconds = secondsOf(threads, [&](unsigned thread) {
        for (unsigned again = 0; again < threads; ++again) {
            std::size_t const begin = (thread + again) % threads * part;
            lookAll(cacheManager, queries, way, begin, begin + part);
        }
    });
    return static_cast<double>(part) * threads * threads / seconds;
}

} // namespace

Json measureLock(Ground const& ground) {
    std::size_t const pairs = ground.settings().quick ? 1'000'000 : 10'000'000;
    LockTimes one, two;
    for (unsigned round = 0; round < ground.settings().rounds; ++round) {
        timeLocks(1, pairs, one);
        timeLocks(2, pairs, two);
    }
    Table table("lock", "Taking and releasing the read lock", {"one thread", "two threads"});
    table.addRow("RWReadersWriterLock",
                 {cellOfRounds(one.ours, "ns", one.shared), cellOfRounds(two.ours, "ns", two.shared)});
    table.addRow("std::shared_mutex", {cellOfRounds(one.shared, "ns"), cellOfRounds(two.shared, "ns")});
    table.addNote("Of each thread; in parentheses the multiple of std::shared_mutex's time.");
    return Json::array({table.json()});
}

Json measureThreads(Ground const& ground) {
    unsigned const threads = ground.settings().threads;
    std::unique_ptr<CacheManager> const cacheManager = loadedCacheManager(ground.file(Order::SHUFFLED));
    Queries const queries = makeQueries(ground.data(), QueryKind::HIT, ground.settings().queries);
    Table table("threads", "Throughput of best-match hits through the cache manager",
                {"one thread", std::to_string(threads) + " threads", "processor time had"});
    for (Way const way : {Way::SINGLE, Way::BATCH}) {
        std::vector<double> one, all, had;
        for (unsigned round = 0; round < ground.settings().rounds; ++round) {
            one.push_back(throughput(*cacheManager, queries, way, 1));
            double const before = processorSeconds();
            auto const begin = std::chrono::steady_clock::now();
            all.push_back(throughput(*cacheManager, queries, way, threads));
            had.push_back((processorSeconds() - before) / secondsSince(begin));
        }
        table.addRow(way == Way::SINGLE ? "single" : "in batches of 32",
                     {cellOfRounds(one, "/s"), cellOfRounds(all, "/s", one), cellOfRounds(had, "x")});
    }
    table.addNote("In parentheses: the multiple of one thread's throughput. The last column says how many cores the "
                  "threads really had: less than there are threads when others use the machine.");
    return Json::array({table.json()});
}

} // namespace npbench
