// Loading and freeing, and the listing.
#include "bench/Caches.h"
#include "bench/Sections.h"
#include "framework/STR/FileIo.h"

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

// The finished lines written without a flush: what writing alone costs.
void writeLines(std::vector<std::string> const& lines, std::string const& to) {
    std::ofstream out(to, std::ios::binary);
    for (std::string const& line : lines)
        out << line << '\n';
}

std::vector<std::string> linesOf(std::string const& file, std::size_t most) {
    std::ifstream in(file, std::ios::binary);
    std::vector<std::string> lines;
    for (std::string line; lines.size() < most && std::getline(in, line);)
        lines.push_back(line);
    return lines;
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
    constexpr std::size_t someLines = 1'000'000;
    std::unique_ptr<CacheManager> const cacheManager = loadedCacheManager(ground.file(Order::SORTED));
    std::string const listing = ground.folder() / "listing", copy = ground.folder() / "copy";
    auto const records = static_cast<double>(ground.data().records());
    std::vector<double> ours, synced, flushed, bare;
    for (unsigned round = 0; round < ground.settings().rounds; ++round) {
        STR::FileIo file(BAS::String(listing), std::ios_base::out);
        ours.push_back(timed([&] { cacheManager->print(file.stream(), true); }));
        synced.push_back(timed([&] { file.closeFile(); }));
        std::ofstream out(copy, std::ios::binary);
        flushed.push_back(timed([&] { cacheManager->print(out, true); }));
        if (std::filesystem::file_size(listing) != std::filesystem::file_size(copy))
            throw WrongAnswer("the listing and its copy differ");
        std::vector<std::string> const lines = linesOf(listing, someLines);
        bare.push_back(timed([&] { writeLines(lines, copy); }) * records / static_cast<double>(lines.size()));
    }
    Table table("listing", "Listing to a file", {"time", "lines"});
    auto const addRow = [&](char const* what, std::vector<double> const& times) {
        table.addRow(what, {cellOfRounds(times, "s", flushed), cellOfRounds(inverse(times, records), "/s")});
    };
    addRow("print to STR::FileIo", ours);
    addRow("then the sync to disk and the replacing", synced);
    addRow("print to std::ofstream, which every flush reaches", flushed);
    addRow("only writing the finished lines to std::ofstream, no flush", bare);
    return Json::array({table.json()});
}

} // namespace npbench
