#include "host/enrich/EnrichPipeline.h"

#include <exception>
#include <thread>
#include <utility>
#include <vector>

namespace nphost {

// The threads of one run; destruction stops the ring and waits for them.
class EnrichPipeline::Threads {
  public:
    explicit Threads(EnrichPipeline& pipeline) : pipelineM(pipeline) {}
    Threads(Threads const&) = delete;
    Threads& operator=(Threads const&) = delete;
    // Also when the taker throws: whoever waits at the ring is woken and ends.
    ~Threads() {
        pipelineM.ringM.stop();
        join();
    }

    void start() {
        threadsM.emplace_back([this] { pipelineM.readAll(); });
        for (unsigned int i = 0; i < pipelineM.threadsM; ++i)
            threadsM.emplace_back([this] { pipelineM.work(); });
    }
    void join() {
        pipelineM.stopReadingM = true; // of input that nobody waits for any more
        for (std::thread& thread : threadsM)
            thread.join();
        threadsM.clear();
    }

  private:
    EnrichPipeline& pipelineM;
    std::vector<std::thread> threadsM;
};

// A block in work and one that waits for each thread, one that is read and one that is written.
EnrichPipeline::EnrichPipeline(EnrichContext const& context, RecordInput& input, std::string prefix,
                               unsigned int threads)
    : contextM(context), inputM(input), prefixM(std::move(prefix)), threadsM(threads), ringM(2UL * threads + 2) {}

void EnrichPipeline::run(std::function<bool(EnrichJob const&)> const& take) {
    Threads threads(*this);
    threads.start();
    // The caller's thread: it alone writes, so files need no lock, and the order is that of the input.
    while (EnrichJob const* const job = ringM.startTaking()) {
        if (!take(*job))
            ringM.stop();
        ringM.finishTaking();
    }
    threads.join();
    // Only now, when all have ended: nobody uses what the exception's unwinding takes away.
    ringM.rethrow();
}

void EnrichPipeline::readAll() noexcept {
    try {
        while (EnrichJob* const job = ringM.startFilling()) {
            // The header, before the first block; places are used again and must forget theirs.
            job->prefix = std::exchange(prefixM, {});
            if (!inputM.next(job->input, stopReadingM))
                // An input that was broken off has no end: what is still in the ring must not pass for all.
                return stopReadingM ? ringM.stop() : ringM.endFilling();
            ringM.finishFilling();
        }
    } catch (...) {
        ringM.fail(std::current_exception());
    }
}

void EnrichPipeline::work() noexcept {
    try {
        Enricher enricher(contextM);
        for (auto work = ringM.startWork(); work.job != nullptr; work = ringM.startWork()) {
            enricher.process(*work.job);
            ringM.finishWork(work);
        }
        // Each thread counts alone, and takes the lock only once for it.
        BAS::MutexGuard const guard(lockM);
        enricher.networks().addTo(networksM);
    } catch (...) {
        ringM.fail(std::current_exception());
    }
}

void EnrichPipeline::addNetworks(NetworkCounts& to) {
    BAS::MutexGuard const guard(lockM);
    to.add(networksM);
}

} // namespace nphost
