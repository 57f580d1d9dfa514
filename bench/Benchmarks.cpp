#include "bench/Benchmarks.h"

#include "bench/Measure.h"

#include <atomic>
#include <benchmark/benchmark.h>
#include <thread>

namespace npbench {

namespace {

using namespace DAT::NumberPortability;
using benchmark::Counter;
using benchmark::State;

constexpr std::size_t TAIL_LOOK_UPS = 2'000'000; // of a thread
constexpr auto UNDISTURBED_TIME = std::chrono::seconds(3);

struct Method {
    char const* name;
    unsigned code;
};
constexpr Method METHODS[] = {{"best", NumberPortabilityTree::BEST_MATCH},
                              {"exact", NumberPortabilityTree::EXACT_MATCH},
                              {"shortest", NumberPortabilityTree::ANY_PREFIX_MATCH}};

struct Kind {
    char const* name;
    QueryKind kind;
};
constexpr Kind KINDS[] = {{"hit", QueryKind::HIT}, {"fall-back", QueryKind::FALL_BACK}, {"miss", QueryKind::MISS}};

bool isFound(Method const& method, Kind const& kind) {
    return kind.kind == QueryKind::HIT ||
           (kind.kind == QueryKind::FALL_BACK && method.code != NumberPortabilityTree::EXACT_MATCH);
}

double number(std::uint64_t value) {
    return static_cast<double>(value);
}

// One tree, filled line by line as a load does; what that cost.
class OneTree {
  public:
    explicit OneTree(World& world) : worldM(world) {}

    void fill() {
        if (treeM != nullptr)
            return;
        std::unique_ptr<CacheManager> const parser = worldM.makeCacheManager();
        STR::FileIoTurbo reader;
        reader.openFile(worldM.file(), STR::FileIoTurbo::readModeCM);
        std::uint64_t const bytesBefore = allocatedBytes();
        std::uint64_t const nodesBefore = PBC::PtrTreeNode<NumberPortabilityList>::nodeCountM;
        auto const begin = std::chrono::steady_clock::now();
        treeM = std::make_unique<NumberPortabilityTree>();
        BAS::String line;
        for (unsigned long count = 1; reader.readLine(line); ++count)
            parser->insertCache(treeM.get(), line, count, true, reader);
        secondsM = secondsSince(begin);
        nodesM = PBC::PtrTreeNode<NumberPortabilityList>::nodeCountM - nodesBefore;
        bytesM = allocatedBytes() - bytesBefore;
    }

    void free() { treeM.reset(); }

    double seconds() const { return secondsM; }
    std::uint64_t nodes() const { return nodesM; }
    std::uint64_t bytes() const { return bytesM; }

  private:
    World& worldM;
    std::unique_ptr<NumberPortabilityTree> treeM;
    double secondsM = 0;
    std::uint64_t nodesM = 0;
    std::uint64_t bytesM = 0;
};

template <class Run>
benchmark::internal::Benchmark* registerRow(std::string const& name, Run const& run) {
    return benchmark::RegisterBenchmark(name.c_str(), run);
}

// A row of one iteration whose time was taken elsewhere.
template <class Measurement>
void registerOnce(std::string const& name, Measurement measurement) {
    auto const run = [measurement](State& state) {
        for ([[maybe_unused]] auto _ : state)
            state.SetIterationTime(measurement(state));
    };
    registerRow(name, run)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
}

void countLoad(State& state, World& world, double seconds) {
    state.counters["lines_per_s"] = number(world.lines()) / seconds;
    state.counters["of_turbo_rate"] = world.turboSeconds() / seconds;
    state.counters["of_getline_rate"] = world.getlineSeconds() / seconds;
}

void registerReading(World& world) {
    registerOnce("ReadLines/FileIoTurbo", [&world](State& state) {
        state.counters["lines_per_s"] = number(world.lines()) / world.turboSeconds();
        return world.turboSeconds();
    });
    registerOnce("ReadLines/getline", [&world](State& state) {
        state.counters["lines_per_s"] = number(world.lines()) / world.getlineSeconds();
        return world.getlineSeconds();
    });
}

void registerOneTree(World& world, std::uint64_t numbers) {
    auto const tree = std::make_shared<OneTree>(world);
    registerOnce("LoadOneTree", [&world, tree, numbers](State& state) {
        tree->fill();
        countLoad(state, world, tree->seconds());
        state.counters["bytes_per_number"] = number(tree->bytes()) / number(numbers);
        state.counters["nodes"] = number(tree->nodes());
        return tree->seconds();
    });
    registerOnce("FreeOneTree", [tree](State& state) {
        tree->fill();
        auto const begin = std::chrono::steady_clock::now();
        tree->free();
        double const seconds = secondsSince(begin);
        state.counters["ns_per_node"] = seconds * 1e9 / number(tree->nodes());
        return seconds;
    });
}

void registerLoad(World& world) {
    registerOnce("LoadBothTrees", [&world](State& state) {
        countLoad(state, world, world.loadSeconds());
        return world.loadSeconds();
    });
}

void countMean(State& state, std::chrono::steady_clock::time_point begin) {
    state.counters["ns_each"] = Counter(
        secondsSince(begin) * 1e9 / number(static_cast<std::uint64_t>(state.iterations())), Counter::kAvgThreads);
    state.counters["per_s"] = Counter(number(static_cast<std::uint64_t>(state.iterations())), Counter::kIsRate);
}

void registerReadLock() {
    static RWReadersWriterLock lock;
    auto const run = [](State& state) {
        auto const begin = std::chrono::steady_clock::now();
        for ([[maybe_unused]] auto _ : state) {
            lock.acquireRead();
            lock.releaseRead();
        }
        countMean(state, begin);
    };
    registerRow("ReadLock", run)->Threads(1)->Threads(2)->UseRealTime();
}

struct LookUps {
    CacheManager* cacheManager;
    Queries const* queries;
};

// The threads of a row all come here; the first of them makes what is not there yet.
LookUps lookUpsIn(World& world, QueryKind kind) {
    static BAS::Mutex mutex;
    BAS::MutexGuard const guard(mutex);
    return {&world.cacheManager(), &world.queries(kind)};
}

void lookUp(State& state, LookUps const& shared, Method const& method, bool expected) {
    Queries const& queries = *shared.queries;
    std::size_t next =
        queries.size() / static_cast<std::size_t>(state.threads()) * static_cast<std::size_t>(state.thread_index());
    std::int64_t found = 0;
    NumberPortabilityData out;
    auto const begin = std::chrono::steady_clock::now();
    for ([[maybe_unused]] auto _ : state) {
        Query const& query = queries[next];
        found += shared.cacheManager->search(query.number, query.at, out, method.code) ? 1 : 0;
        next = next + 1 == queries.size() ? 0 : next + 1;
    }
    countMean(state, begin);
    if (found != (expected ? state.iterations() : 0))
        state.SkipWithError("a look-up had the wrong outcome");
}

void registerLookUp(World& world, Method const& method, Kind const& kind) {
    std::string const name = std::string("LookUp/") + method.name + '/' + kind.name;
    auto const run = [&world, &method, &kind](State& state) {
        lookUp(state, lookUpsIn(world, kind.kind), method, isFound(method, kind));
    };
    registerRow(name, run)->Threads(1)->Threads(2)->UseRealTime();
}

// Looks up and times until `count` look-ups are done or, when it is given, until `stop` is set.
Histogram timeLookUps(LookUps const& shared, Method const& method, std::size_t begin, std::size_t count,
                      std::atomic<bool> const* stop) {
    Histogram times;
    NumberPortabilityData out;
    std::size_t next = begin;
    for (std::size_t i = 0; stop != nullptr ? !stop->load(std::memory_order_relaxed) : i < count; ++i) {
        Query const& query = (*shared.queries)[next];
        Ticks const before = ticks();
        shared.cacheManager->search(query.number, query.at, out, method.code);
        times.add(ticks() - before);
        next = next + 1 == shared.queries->size() ? 0 : next + 1;
    }
    return times;
}

// Several threads of timed look-ups, while this thread does `meanwhile`, whose end ends them unless a count
// is given.
template <class Meanwhile>
Histogram timeInThreads(LookUps const& shared, Method const& method, unsigned threads, std::size_t count,
                        Meanwhile meanwhile) {
    std::vector<Histogram> results(threads);
    std::vector<std::thread> running;
    std::atomic<bool> stop{false};
    for (unsigned i = 0; i < threads; ++i)
        running.emplace_back([&, i] {
            results[i] =
                timeLookUps(shared, method, shared.queries->size() / threads * i, count, count == 0 ? &stop : nullptr);
        });
    meanwhile();
    stop = true;
    for (std::thread& thread : running)
        thread.join();
    Histogram all;
    for (Histogram const& result : results)
        all.add(result);
    return all;
}

void countTail(State& state, Histogram const& times) {
    state.counters["p50_ns"] = times.quantileNs(0.5);
    state.counters["p99_ns"] = times.quantileNs(0.99);
    state.counters["p99.9_ns"] = times.quantileNs(0.999);
    state.counters["worst_ns"] = times.worstNs();
    state.counters["look-ups"] = number(times.total());
}

void registerTail(World& world, Method const& method, Kind const& kind, unsigned threads) {
    std::string const name =
        std::string("Tail/") + method.name + '/' + kind.name + "/threads:" + std::to_string(threads);
    registerOnce(name, [&world, &method, &kind, threads](State& state) {
        LookUps const shared = lookUpsIn(world, kind.kind);
        auto const begin = std::chrono::steady_clock::now();
        countTail(state, timeInThreads(shared, method, threads, TAIL_LOOK_UPS, [] {}));
        return secondsSince(begin);
    });
}

void registerBeside(World& world, bool reload, unsigned threads) {
    std::string const name =
        std::string(reload ? "Beside/reload" : "Beside/nothing") + "/threads:" + std::to_string(threads);
    registerOnce(name, [&world, reload, threads](State& state) {
        LookUps const shared = lookUpsIn(world, QueryKind::HIT);
        auto const begin = std::chrono::steady_clock::now();
        bool done = true;
        Histogram const times = timeInThreads(shared, METHODS[0], threads, 0, [&] {
            if (reload)
                done = shared.cacheManager->cacheReload(false);
            else
                std::this_thread::sleep_for(UNDISTURBED_TIME);
        });
        if (threads != 0)
            countTail(state, times);
        if (!done)
            state.SkipWithError("the reload failed");
        return secondsSince(begin);
    });
}

} // namespace

void registerBenchmarks(World& world, std::uint64_t numbers) {
    registerReading(world);
    registerOneTree(world, numbers);
    registerReadLock();
    registerLoad(world);
    for (Method const& method : METHODS)
        for (Kind const& kind : KINDS)
            registerLookUp(world, method, kind);
    for (Method const& method : METHODS)
        for (Kind const& kind : KINDS)
            for (unsigned const threads : {1U, 2U})
                registerTail(world, method, kind, threads);
    registerBeside(world, true, 0);
    for (unsigned const threads : {1U, 2U})
        for (bool const reload : {false, true})
            registerBeside(world, reload, threads);
}

} // namespace npbench
