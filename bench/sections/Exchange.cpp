// How long a writer waits for readers that never pause, and look-ups for a print.
#include "bench/Caches.h"
#include "bench/Sections.h"

#include <algorithm>
#include <streambuf>

namespace npbench {

namespace {

constexpr unsigned READERS = 4;
constexpr auto PAUSE = std::chrono::microseconds(200);

struct Waits {
    std::vector<double> median, p99, worst;

    void add(Histogram const& times) {
        median.push_back(times.quantileNs(0.5));
        p99.push_back(times.quantileNs(0.99));
        worst.push_back(times.worstNs());
    }
    std::vector<Json> cells() const {
        return {cellOfRounds(median, "ns"), cellOfRounds(p99, "ns"), cellOfRounds(worst, "ns"),
                cell(*std::max_element(worst.begin(), worst.end()), "ns")};
    }
};

// Times an operation again and again, with a pause between.
template <class Operation>
Histogram timeOften(std::size_t times, Operation operation) {
    Histogram result;
    for (std::size_t i = 0; i < times; ++i) {
        Ticks const before = ticks();
        operation();
        result.add(ticks() - before);
        std::this_thread::sleep_for(PAUSE);
    }
    return result;
}

Histogram exchangeLockAlone(std::size_t times) {
    RWReadersWriterLock lock;
    std::atomic<bool> stop{false};
    std::vector<std::thread> readers;
    for (unsigned i = 0; i < READERS; ++i)
        readers.emplace_back([&] {
            while (!stop.load(std::memory_order_relaxed))
                RWReadersWriterLock::ReadGuard const guard(lock);
        });
    Histogram result; // of getting in; what comes after belongs to the readers that wake up
    for (std::size_t i = 0; i < times; ++i) {
        Ticks const before = ticks();
        lock.acquireWrite();
        result.add(ticks() - before);
        lock.releaseWrite();
        std::this_thread::sleep_for(PAUSE);
    }
    stop = true;
    for (std::thread& reader : readers)
        reader.join();
    return result;
}

Histogram exchangeUnderLookUps(CacheManager& cacheManager, Queries const& queries, std::size_t times) {
    TimedReaders const readers(cacheManager, queries, READERS);
    return timeOften(times, [&] { cacheManager.numOfEntries(); });
}

// A stream whose far end is slow at first: so many pauses of a millisecond, spread over what is written.
class SlowStream : public std::streambuf {
  public:
    explicit SlowStream(unsigned pauses) : pausesM(pauses) {}

  protected:
    int_type overflow(int_type character) override { return character; }
    std::streamsize xsputn(char const*, std::streamsize count) override { return count; }
    int sync() override {
        if (pausesM > 0) {
            --pausesM;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return 0;
    }

  private:
    unsigned pausesM;
};

// Look-ups of one thread while another prints to a slow stream and, if told so, a third waits to exchange.
void lookBesidePrint(CacheManager& cacheManager, Queries const& queries, unsigned pauses, bool writer, Waits& waits) {
    TimedReaders readers(cacheManager, queries, 1);
    std::thread waiting;
    if (writer)
        waiting = std::thread([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(50)); // the print is inside by then
            cacheManager.numOfEntries();
        });
    SlowStream slow(pauses);
    std::ostream out(&slow);
    cacheManager.print(out, true);
    readers.stop();
    if (writer)
        waiting.join();
    waits.add(readers.times());
}

void lookAlone(CacheManager& cacheManager, Queries const& queries, unsigned milliseconds, Waits& waits) {
    TimedReaders readers(cacheManager, queries, 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    readers.stop();
    waits.add(readers.times());
}

std::vector<std::string> const columns{"median", "p99", "worst of a round", "worst of all"};

} // namespace

Json measureExchange(Ground const& ground) {
    bool const quick = ground.settings().quick;
    std::size_t const times = quick ? 200 : 2000;
    unsigned const pauses = quick ? 200 : 2000;
    std::unique_ptr<CacheManager> const cacheManager = loadedCacheManager(ground.file(Order::SORTED));
    Queries const queries = makeQueries(ground.data(), QueryKind::HIT, ground.settings().queries);
    Waits lockAlone, lookUps, undisturbed, printing, printingAndWriter;
    for (unsigned round = 0; round < ground.settings().rounds; ++round) {
        lockAlone.add(exchangeLockAlone(times));
        lookUps.add(exchangeUnderLookUps(*cacheManager, queries, times));
        lookAlone(*cacheManager, queries, pauses, undisturbed);
        lookBesidePrint(*cacheManager, queries, pauses, false, printing);
        lookBesidePrint(*cacheManager, queries, pauses, true, printingAndWriter);
    }
    Table exchange("exchange", "How long an exchange takes beside four threads that read without a pause", columns);
    exchange.addRow("the lock alone, getting in", lockAlone.cells());
    exchange.addRow("look-ups, in and out again", lookUps.cells());
    exchange.addNote(std::to_string(times) +
                     " exchanges a round; more threads than cores, so waits for a core are in.");
    Table print("print", "One thread's look-ups beside a print to a slow stream", columns);
    print.addRow("alone", undisturbed.cells());
    print.addRow("beside the print", printing.cells());
    print.addRow("and beside an exchange that waits for it", printingAndWriter.cells());
    return Json::array({exchange.json(), print.json()});
}

} // namespace npbench
