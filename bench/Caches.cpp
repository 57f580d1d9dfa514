#include "bench/Caches.h"

#include "cache/OwnerServices.h"
#include "cache/TreeFilling.h"

#include <iostream>
#include <stdexcept>

namespace DAT::NumberPortability {

class PlugIn {};

namespace OwnerServices {

bool checkFile(PlugIn&) {
    return true;
}

bool checkFile(PlugIn&, BAS::String const&) {
    return true;
}

void report(PlugIn&, BAS::String const& identifier, BAS::Status::Severity severity, BAS::Status::Arguments const&) {
    if (severity >= BAS::Status::WARNING)
        // The data are generated and clean: whatever is reported would falsify the figures.
        throw std::runtime_error("unexpected report " + identifier.str());
}

BAS::String name(PlugIn const&) {
    return "npbench";
}

} // namespace OwnerServices
} // namespace DAT::NumberPortability

namespace npbench {

namespace {

DAT::NumberPortability::PlugIn plugIn;
BAS::String const nationalAccessCode("0");
BAS::String const internationalAccessCode("00");
BAS::String const countryCode("49");
BAS::String const internationalSign("+");
constexpr std::uint32_t columns = 3;

} // namespace

std::unique_ptr<CacheManager> makeCacheManager(std::string const& file) {
    return std::make_unique<CacheManager>(&plugIn, nationalAccessCode, internationalAccessCode, countryCode,
                                          internationalSign, columns, file);
}

std::unique_ptr<CacheManager> loadedCacheManager(std::string const& file) {
    std::unique_ptr<CacheManager> made = makeCacheManager(file);
    if (!made->load())
        throw std::runtime_error("the data did not load");
    return made;
}

void loadOneTree(std::string const& file, NumberPortabilityTree& tree) {
    using namespace DAT::NumberPortability;
    STR::FileIoTurbo reader;
    reader.openFile(file, STR::FileIoTurbo::readModeCM);
    DiallingCodes const codes(nationalAccessCode, internationalAccessCode, countryCode, internationalSign);
    LoadStop const stop;
    TreeFilling filling({codes, columns, LineReporter(::npbench::plugIn, codes, reader), stop}, tree);
    for (std::string_view line; reader.readLine(line);)
        filling.add(line);
    filling.finish();
    tree.prepare();
}

TimedReaders::TimedReaders(CacheManager& cacheManager, Queries const& queries, unsigned threads)
    : cacheManagerM(cacheManager), queriesM(queries), ownTimesM(threads), beginM(std::chrono::steady_clock::now()) {
    nanosecondsPerTick(); // measured now, not when the threads run
    beginM = std::chrono::steady_clock::now();
    for (unsigned i = 0; i < threads; ++i)
        // Each begins elsewhere, so that they do not warm the caches for each other.
        threadsM.emplace_back([this, i, threads] { look(queriesM.size() / threads * i, ownTimesM[i]); });
}

void TimedReaders::look(std::size_t next, Histogram& times) {
    DAT::NumberPortability::NumberPortabilityData out;
    while (!stopM.load(std::memory_order_relaxed)) {
        Ticks const before = ticks();
        bool const found = cacheManagerM.search(queriesM.numbers[next], queriesM.instants[next], out,
                                                NumberPortabilityTree::BEST_MATCH);
        times.add(ticks() - before);
        // Counted, not thrown: a thread that ends would change the load.
        if (!found)
            missedM.fetch_add(1, std::memory_order_relaxed);
        next = next + 1 == queriesM.size() ? 0 : next + 1;
    }
}

void TimedReaders::stop() {
    if (threadsM.empty())
        return;
    stopM = true;
    for (std::thread& thread : threadsM)
        thread.join();
    threadsM.clear();
    secondsM = secondsSince(beginM);
    // Counts of each thread, added when all have ended: no line of a cache is shared while they run.
    for (Histogram const& own : ownTimesM)
        timesM.add(own);
    if (missedM != 0)
        std::cerr << "npbench: " << missedM << " look-ups found nothing\n";
}

} // namespace npbench
