// The life of a cache manager with a hundred million numbers, step by step.
#include "bench/Caches.h"
#include "bench/Sections.h"

#include <fstream>
#include <iostream>
#include <malloc.h>
#include <unordered_set>

namespace npbench {

namespace {

constexpr std::uint64_t DELTA_RECORDS = 1'000'000;
constexpr std::size_t CHECKED = 100'000;
constexpr std::size_t BATCH = 32;
constexpr auto LOOKING_TIME = std::chrono::seconds(5);

// Kinds of look-ups, with what they must find.
struct Expected {
    Queries queries;
    std::vector<std::optional<Record>> records; // of the first queries
};

class Life {
  public:
    Life(Settings const& settings, std::ostream& out)
        : settingsM(settings), outM(out),
          tableM("hundred-million", "Step by step", {"time", "rate", "resident after it", "peak within it"}) {}

    void prepare() {
        std::unique_ptr<PortabilityData> data;
        step(
            "generating the numbers", [&] { data = std::make_unique<PortabilityData>(settingsM.data); },
            double(settingsM.data.numbers));
        recordsM = data->records();
        networksM = data->networks();
        step(
            "writing the file", [&] { data->writeFile(mainFile(), settingsM.order); }, double(recordsM));
        step(
            "writing the delta", [&] { writeDelta(*data); }, double(deltaRecords()));
        hitsM = expect(*data, QueryKind::HIT);
        fallBacksM = expect(*data, QueryKind::FALL_BACK);
        data.reset();
        malloc_trim(0);
    }

    void live() {
        cacheManagerM = makeCacheManager(mainFile());
        step(
            "load", [&] { must(cacheManagerM->load(), "the load"); }, double(recordsM));
        must(cacheManagerM->numOfEntries() == recordsM, "the number of records");
        lookUp("hits", hitsM);
        lookUp("fall-backs", fallBacksM);
        lookInBatches();
        lookFor("look-ups alone, timed one by one", [] { std::this_thread::sleep_for(LOOKING_TIME); });
        lookFor("reload", [&] {
            step(
                "reload, under look-ups", [&] { must(cacheManagerM->cacheReload(false), "the reload"); },
                double(recordsM));
        });
        lookFor("delta", [&] {
            step(
                "delta, under look-ups", [&] { must(cacheManagerM->cacheDeltaLoad(deltaFile()), "the delta"); },
                double(deltaRecords()));
        });
        must(cacheManagerM->numOfEntries() == recordsM + deltaRecords(), "the number of records after the delta");
        step(
            "freeing it all", [&] { cacheManagerM.reset(); }, double(recordsM + deltaRecords()));
    }

    Json tables() const { return Json::array({tableM.json(), tailsM.json()}); }

  private:
    std::string mainFile() const { return folderM.path() / "main"; }
    std::string deltaFile() const { return folderM.path() / "delta"; }
    std::uint64_t deltaRecords() const { return std::min(DELTA_RECORDS, settingsM.data.numbers / 4); }

    static void must(bool good, char const* what) {
        if (!good)
            throw WrongAnswer(std::string(what) + " went wrong");
    }

    template <class Action>
    void step(std::string const& name, Action action, double amount) {
        forgetPeak();
        auto const begin = std::chrono::steady_clock::now();
        action();
        double const seconds = secondsSince(begin);
        tableM.addRow(name, {cell(seconds, "s"), cell(amount / seconds, "/s"), cell(double(residentBytes()), "bytes"),
                             cell(double(peakResidentBytes()), "bytes")});
        outM << name << ": " << seconds << " s, resident " << (residentBytes() >> 20) << " MiB, peak "
             << (peakResidentBytes() >> 20) << " MiB" << std::endl;
    }

    Expected expect(PortabilityData const& data, QueryKind kind) const {
        Expected expected{makeQueries(data, kind, settingsM.queries), {}};
        for (std::size_t i = 0; i < std::min(CHECKED, expected.queries.size()); ++i)
            expected.records.push_back(
                data.expected(Key::of(expected.queries.numbers[i].view()), expected.queries.instants[i]));
        return expected;
    }

    // New records of 2025, one a number: half of numbers that are stored, half of new ones in allocated ranges.
    void writeDelta(PortabilityData const& data) const {
        PortabilityData::Random random(settingsM.data.seed + 99);
        std::unordered_set<std::uint64_t> chosen;
        std::ofstream out(deltaFile(), std::ios::binary);
        History history;
        history.count = 1;
        history.records[0].validFrom = BAS::DateTime("20250101000000");
        for (std::string lines; chosen.size() < deltaRecords(); lines.clear()) {
            Key const key = chosen.size() % 2 == 0 ? data.randomNumber(random) : data.randomInRange(random);
            if (!chosen.insert(key.bits()).second)
                continue;
            history.records[0].network = unsigned(random() % PortabilityData::networksCM);
            data.appendLines(lines, key, history);
            out << lines;
        }
        must(out.good(), "writing the delta");
    }

    void check(Expected const& expected) const {
        DAT::NumberPortability::NumberPortabilityData out;
        for (std::size_t i = 0; i < expected.records.size(); ++i) {
            std::optional<Record> const& wanted = expected.records[i];
            bool const found = cacheManagerM->search(expected.queries.numbers[i], expected.queries.instants[i], out,
                                                     NumberPortabilityTree::BEST_MATCH);
            must(found == wanted.has_value() &&
                     (!found || (out.validFromM == wanted->validFrom && out.networkIdM == networksM[wanted->network])),
                 "a look-up");
        }
    }

    void lookUp(std::string const& name, Expected const& expected) {
        check(expected);
        Queries const& queries = expected.queries;
        std::uint64_t found = 0;
        step(
            name,
            [&] {
                DAT::NumberPortability::NumberPortabilityData out;
                for (std::size_t i = 0; i < queries.size(); ++i)
                    found += cacheManagerM->search(queries.numbers[i], queries.instants[i], out,
                                                   NumberPortabilityTree::BEST_MATCH)
                                 ? 1
                                 : 0;
            },
            double(queries.size()));
        must(found == queries.size(), "the outcome of look-ups");
    }

    void lookInBatches() {
        Queries const& queries = hitsM.queries;
        std::array<DAT::NumberPortability::NumberPortabilityData, BATCH> out;
        std::array<bool, BATCH> found{};
        step(
            "hits in batches of 32",
            [&] {
                for (std::size_t i = 0; i + BATCH <= queries.size(); i += BATCH)
                    cacheManagerM->search(std::span(queries.numbers).subspan(i, BATCH),
                                          std::span(queries.instants).subspan(i, BATCH), out, found,
                                          NumberPortabilityTree::BEST_MATCH);
            },
            double(queries.size()));
    }

    template <class Meanwhile>
    void lookFor(char const* name, Meanwhile meanwhile) {
        TimedReaders readers(*cacheManagerM, hitsM.queries, 1);
        meanwhile();
        readers.stop();
        Histogram const& times = readers.times();
        tailsM.addRow(name, {cell(readers.perSecond(), "/s"), cell(times.quantileNs(0.5), "ns"),
                             cell(times.quantileNs(0.99), "ns"), cell(times.quantileNs(0.999), "ns"),
                             cell(times.worstNs(), "ns")});
    }

    Settings const& settingsM;
    std::ostream& outM;
    TemporaryFolder folderM{"npbench"};
    Table tableM;
    Table tailsM{
        "hundred-million-look-ups", "One thread's look-ups meanwhile", {"look-ups", "p50", "p99", "p99.9", "worst"}};
    std::uint64_t recordsM = 0;
    std::vector<BAS::SimpleString> networksM;
    Expected hitsM, fallBacksM;
    std::unique_ptr<CacheManager> cacheManagerM;
};

} // namespace

Json runHundredMillion(Settings const& settings, std::ostream& out) {
    Life life(settings, out);
    life.prepare();
    life.live();
    for (Json const& table : life.tables())
        printTable(out, table, false);
    return life.tables();
}

} // namespace npbench
