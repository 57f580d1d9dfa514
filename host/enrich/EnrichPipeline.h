// nphost::EnrichPipeline: an enrichment on all processors, in order and in bounded memory.
//
// Purpose: one thread reads blocks of whole records, several enrich them, and the calling one takes them away in the
// order of the input.
// Units: up to two blocks a thread and two more are under way, a few MiB each.
// Ownership: borrows context and input; owns its threads, which have ended when run returns or throws.
// Threads: one run by one thread; the context's plug-in is called by several.
// Errors: run throws what a thread or the taker threw first. A reader that waits for input sees the end of a run, or
// stopReading, within a tenth of a second.
// Complexity: that of the input.
#pragma once

#include "framework/BAS/Mutex.h"
#include "host/enrich/Enricher.h"
#include "host/enrich/OrderedRing.h"

#include <atomic>
#include <functional>
#include <string>

namespace nphost {

class EnrichPipeline {
  public:
    // `prefix` is what stands before the first block's result.
    EnrichPipeline(EnrichContext const& context, RecordInput& input, std::string prefix, unsigned int threads);
    EnrichPipeline(EnrichPipeline const&) = delete;
    EnrichPipeline& operator=(EnrichPipeline const&) = delete;

    // Until the input ends, or `take` returns false.
    void run(std::function<bool(EnrichJob const&)> const& take);

    // Ends the reading as soon as may be when it becomes true; may be set at any time, as by a signal handler.
    std::atomic<bool>& stopReading() { return stopReadingM; }

    // After run: adds to those.
    void addNetworks(NetworkCounts& to);

  private:
    class Threads;

    void readAll() noexcept;
    void work() noexcept;

    EnrichContext const& contextM;
    RecordInput& inputM;
    std::string prefixM;
    unsigned int threadsM;
    OrderedRing<EnrichJob> ringM;
    std::atomic<bool> stopReadingM{false};
    BAS::Mutex lockM;
    NetworkCounts networksM NP_GUARDED_BY(lockM);
};

} // namespace nphost
