// Cache managers for the benchmarks, which stand in for the plug-in: whatever is reported with a warning is a fault.
//
// Threads: as the cache manager. Errors: std::runtime_error when the data do not load or a look-up goes wrong.
#pragma once

#include "bench/Measure.h"
#include "bench/Queries.h"
#include "cache/CacheManager.h"

#include <atomic>
#include <memory>
#include <string>
#include <thread>

namespace npbench {

using DAT::NumberPortability::CacheManager;
using DAT::NumberPortability::NumberPortabilityTree;

// With the dialling codes and two empty trees.
std::unique_ptr<CacheManager> makeCacheManager(std::string const& file);
// With the file loaded.
std::unique_ptr<CacheManager> loadedCacheManager(std::string const& file);

// Fills one tree from a file, as a load does. The one place that knows how.
void loadOneTree(std::string const& file, NumberPortabilityTree& tree);

// Threads that look up without a pause, each look-up timed, until they are stopped.
class TimedReaders {
  public:
    TimedReaders(CacheManager& cacheManager, Queries const& queries, unsigned threads);
    TimedReaders(TimedReaders const&) = delete;
    TimedReaders& operator=(TimedReaders const&) = delete;
    ~TimedReaders() { stop(); }

    // Ends the threads. From here on times and perSecond tell what they did.
    void stop();

    Histogram const& times() const { return timesM; }
    double perSecond() const { return static_cast<double>(timesM.total()) / secondsM; }

  private:
    void look(std::size_t next, Histogram& times);

    CacheManager& cacheManagerM;
    Queries const& queriesM;
    std::atomic<bool> stopM{false};
    std::atomic<std::uint64_t> missedM{0};
    std::vector<Histogram> ownTimesM; // a thread's each
    std::vector<std::thread> threadsM;
    std::chrono::steady_clock::time_point beginM;
    double secondsM = 0;
    Histogram timesM;
};

} // namespace npbench
