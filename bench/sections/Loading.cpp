// Loading and freeing, and the listing.
#include "bench/Caches.h"
#include "bench/Sections.h"

#include <cstdio>
#include <fstream>
#include <map>

namespace npbench {

namespace {

template <class Action>
double timed(Action action) {
    auto const begin = std::chrono::steady_clock::now();
    action();
    return secondsSince(begin);
}

void readByStream(std::string const& file) {
    std::ifstream in(file, std::ios::binary);
    for (std::string line; std::getline(in, line);)
        keep(line);
}

void readByC(std::string const& file) {
    std::FILE* const in = std::fopen(file.c_str(), "rb");
    char* line = nullptr;
    std::size_t capacity = 0;
    while (getline(&line, &capacity, in) > 0)
        keep(line);
    std::free(line);
    static_cast<void>(std::fclose(in));
}

void readByTurbo(std::string const& file) {
    STR::FileIoTurbo reader;
    reader.openFile(file, STR::FileIoTurbo::readModeCM);
    for (BAS::String line; reader.readLine(line);)
        keep(line);
}

// Seconds of every step, a value a round.
using Times = std::map<std::string, std::vector<double>>;

constexpr char const* BY_STREAM = "std::getline";
constexpr char const* BY_C = "getline of C";

void timeRound(std::string const& file, std::uint64_t records, Times& times) {
    times[BY_STREAM].push_back(timed([&] { readByStream(file); }));
    times[BY_C].push_back(timed([&] { readByC(file); }));
    times["FileIoTurbo, reading alone"].push_back(timed([&] { readByTurbo(file); }));
    auto tree = std::make_unique<NumberPortabilityTree>();
    times["one tree"].push_back(timed([&] { loadOneTree(file, *tree); }));
    if (tree->entries() != records)
        throw WrongAnswer("a load lost records");
    times["freeing one tree"].push_back(timed([&] { tree.reset(); }));
    std::unique_ptr<CacheManager> const both = makeCacheManager(file);
    times["both trees"].push_back(timed([&] { both->load(); }));
    if (both->numOfEntries() != records)
        throw WrongAnswer("a load of both trees lost records");
}

std::vector<double> inverse(std::vector<double> const& seconds, double amount) {
    std::vector<double> rates;
    for (double const one : seconds)
        rates.push_back(amount / one);
    return rates;
}

void addRows(Table& table, std::string const& what, Times const& times, double records) {
    std::vector<double> const stream = inverse(times.at(BY_STREAM), records);
    std::vector<double> const plain = inverse(times.at(BY_C), records);
    for (char const* const step : {BY_STREAM, BY_C, "FileIoTurbo, reading alone", "one tree", "both trees"}) {
        std::vector<double> const rates = inverse(times.at(step), records);
        table.addRow(what + step, {cellOfRounds(times.at(step), "s"), cellOfRounds(rates, "/s"),
                                   cell(cellOfRounds(rates, "/s", stream)["ratio"].get<double>(), "x"),
                                   cell(cellOfRounds(rates, "/s", plain)["ratio"].get<double>(), "x")});
    }
    std::vector<double> const& freeing = times.at("freeing one tree");
    table.addRow(what + "freeing one tree",
                 {cellOfRounds(freeing, "s"), cellOfRounds(inverse(freeing, records), "/s"), nullptr, nullptr});
}

// What a program does that writes a line at a time and flushes each.
void writeFlushed(std::string const& from, std::string const& to) {
    std::ifstream in(from, std::ios::binary);
    std::ofstream out(to, std::ios::binary);
    for (std::string line; std::getline(in, line);)
        out << line << std::endl;
}

} // namespace

Json measureLoading(Ground const& ground) {
    std::uint64_t const records = ground.data().records();
    Times sorted, shuffled;
    for (unsigned round = 0; round < ground.settings().rounds; ++round) {
        timeRound(ground.file(Order::SORTED), records, sorted);
        timeRound(ground.file(Order::SHUFFLED), records, shuffled);
    }
    Table table("loading", "Loading", {"time", "lines", "of std::getline", "of C's getline"});
    addRows(table, "sorted file, ", sorted, static_cast<double>(records));
    addRows(table, "shuffled file, ", shuffled, static_cast<double>(records));
    table.addNote("Multiples of the rates of bare reading in the same round; the files are in the page cache.");
    return Json::array({table.json()});
}

Json measureListing(Ground const& ground) {
    std::unique_ptr<CacheManager> const cacheManager = loadedCacheManager(ground.file(Order::SORTED));
    std::string const listing = ground.folder() / "listing", copy = ground.folder() / "copy";
    std::vector<double> ours, flushed;
    for (unsigned round = 0; round < ground.settings().rounds; ++round) {
        ours.push_back(timed([&] { cacheManager->printData(listing); }));
        flushed.push_back(timed([&] { writeFlushed(listing, copy); }));
        if (std::filesystem::file_size(listing) != std::filesystem::file_size(copy))
            throw WrongAnswer("the listing and its copy differ");
    }
    auto const records = static_cast<double>(ground.data().records());
    Table table("listing", "Listing to a file", {"time", "lines"});
    table.addRow("printData", {cellOfRounds(ours, "s", flushed), cellOfRounds(inverse(ours, records), "/s")});
    table.addRow("the same lines, std::endl each",
                 {cellOfRounds(flushed, "s"), cellOfRounds(inverse(flushed, records), "/s")});
    table.addNote(
        "printData's time has the sync to disk in it, the other has not; the other reads the finished lines.");
    return Json::array({table.json()});
}

} // namespace npbench
