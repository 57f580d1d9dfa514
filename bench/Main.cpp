// npbench: how fast and how large the number-portability cache is, beside other structures.
//
//   npbench                               the whole table for 10 million numbers
//   npbench --quick                       the same, small and short, to see that it works
//   npbench --only look-ups,memory        some sections of it
//   npbench --scale [LIST]                memory and look-ups by size
//   npbench --hundred-million             load, look-ups, reload and delta of a hundred million numbers
//   npbench --json FILE --markdown FILE   the tables once more
//
// The data are generated (PortabilityData.h and Queries.h say what they look like) and lie in a temporary folder
// (TMPDIR) for as long as the program runs. docs/performance.md says what the rows mean.
// Exit status: 0 when all was measured; 1 when a structure gave a wrong answer or something failed; 2 for a wrong
// command line.
#include "bench/Measure.h"
#include "bench/Sections.h"

#include <exception>
#include <fstream>
#include <iostream>

namespace npbench {

namespace {

Json describeRun(Settings const& settings) {
    Json facts = {{"date", BAS::DateTime::now().asString("%Y-%m-%d %H:%M UTC").str()}};
    facts.update(describeMachine());
    facts["shape"] = settings.shape;
    if (settings.mode != Mode::SCALE)
        facts["numbers"] = settings.data.numbers;
    facts["order of filling"] = settings.order == Order::SORTED ? "sorted" : "shuffled";
    facts["seed"] = settings.data.seed;
    facts["look-ups of a kind"] = settings.queries;
    facts["rounds"] = settings.rounds;
    facts["threads of the throughput row"] = settings.threads;
    return facts;
}

bool isWanted(Settings const& settings, Section const& section) {
    auto const& only = settings.only;
    return only.empty() || std::find(only.begin(), only.end(), section.name) != only.end();
}

// A section that memory does not suffice for is left out, and the table says so.
Json run(Section const& section, Ground const& ground) {
    std::cerr << "-- " << section.name << '\n';
    try {
        return inOwnProcess(ground.settings().mostBytes, [&] { return section.measure(ground); });
    } catch (NoRoom const& none) {
        Table table(section.name, section.name, {});
        table.addNote(std::string("Left out: ") + none.what());
        return Json::array({table.json()});
    }
}

Json runSections(Settings const& settings) {
    std::cerr << "generating " << settings.data.numbers << " numbers\n";
    Ground const ground(settings);
    Json tables = Json::array();
    for (Section const& section : sections()) {
        if (!isWanted(settings, section))
            continue;
        for (Json const& table : run(section, ground)) {
            printTable(std::cout, table, false);
            tables.push_back(table);
        }
    }
    return tables;
}

Json runMode(Settings const& settings) {
    switch (settings.mode) {
    case Mode::SCALE:
        return runScale(settings, std::cout);
    case Mode::HUNDRED_MILLION:
        return runHundredMillion(settings, std::cout);
    case Mode::TABLE:
        break;
    }
    return runSections(settings);
}

// Better now than after an hour.
void checkFiles(Settings const& settings) {
    for (std::string const& name : {settings.json, settings.markdown, settings.plotData})
        if (!name.empty() && !std::ofstream(name, std::ios::app))
            throw std::runtime_error("cannot write " + name);
}

void write(std::string const& name, Json const& facts, Json const& tables, bool markdown) {
    if (name.empty())
        return;
    std::ofstream out(name);
    if (markdown) {
        printFacts(out, facts, true);
        for (Json const& table : tables)
            printTable(out, table, true);
    } else {
        out << Json{{"run", facts}, {"tables", tables}}.dump(2) << '\n';
    }
    if (!out)
        throw std::runtime_error("cannot write " + name);
}

} // namespace

std::string Ground::file(Order order) const {
    std::string name = folder() / (order == Order::SORTED ? "sorted" : "shuffled");
    if (!std::filesystem::exists(name))
        dataM.writeFile(name, order);
    return name;
}

std::vector<Section> sections() {
    return {{"memory", measureMemory},   {"look-ups", measureLookUps}, {"small", measureSmallSet},
            {"loading", measureLoading}, {"listing", measureListing},  {"lock", measureLock},
            {"threads", measureThreads}, {"reload", measureReload},    {"exchange", measureExchange}};
}

} // namespace npbench

int main(int count, char** arguments) {
    using namespace npbench;
    try {
        int status = 0;
        std::optional<Settings> const settings = parse(count, arguments, status);
        if (!settings)
            return status;
        checkFiles(*settings);
        Json const facts = describeRun(*settings);
        printFacts(std::cout, facts, false);
        Json const tables = runMode(*settings);
        write(settings->json, facts, tables, false);
        write(settings->markdown, facts, tables, true);
        return 0;
    } catch (std::exception const& failure) {
        std::cerr << "npbench: " << failure.what() << '\n';
        return 1;
    }
}
