#include "bench/Settings.h"

#include "bench/Sections.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <sstream>
#include <thread>

namespace npbench {

namespace {

constexpr char const* DEFAULT_SCALE = "100000,300000,1000000,3000000,10000000,30000000,50000000";
constexpr std::uint64_t HUNDRED_MILLION = 100'000'000;
constexpr std::uint64_t QUICK_NUMBERS = 100'000;

std::map<std::string, Shape> const shapes{
    {"mixed", Shape::MIXED}, {"dense", Shape::DENSE}, {"sparse", Shape::SPARSE}, {"lengths", Shape::LENGTHS}};
std::map<std::string, Order> const orders{{"sorted", Order::SORTED}, {"shuffled", Order::SHUFFLED}};

std::vector<std::string> sectionNames() {
    std::vector<std::string> names;
    for (Section const& section : sections())
        names.emplace_back(section.name);
    return names;
}

std::vector<std::uint64_t> numbersIn(std::string const& list) {
    std::vector<std::uint64_t> numbers;
    std::istringstream in(list);
    for (std::string text; std::getline(in, text, ',');)
        numbers.push_back(std::stoull(text));
    return numbers;
}

// What the command line says before defaults that depend on the mode are filled in.
struct Given {
    std::optional<std::uint64_t> numbers;
    std::optional<unsigned> rounds;
    std::string scale;
    std::string order = "shuffled";
    double gibibytes = 18;
    bool hundredMillion = false;
};

void addDataOptions(CLI::App& app, Settings& settings, Given& given) {
    app.add_option("--numbers", given.numbers, "how many numbers (10 million; with --hundred-million that many)")
        ->check(CLI::Range(std::uint64_t{1000}, std::uint64_t{1'000'000'000}));
    app.add_option("--seed", settings.data.seed, "of the generated data")->capture_default_str();
    app.add_option("--shape", settings.shape, "mixed, dense, sparse or lengths")->check(CLI::IsMember(shapes));
    app.add_option("--order", given.order, "in which structures are filled: shuffled or sorted")
        ->check(CLI::IsMember(orders));
}

void addRunOptions(CLI::App& app, Settings& settings, Given& given) {
    app.add_option("--rounds", given.rounds, "of each measurement (5)")->check(CLI::Range(1U, 1000U));
    app.add_option("--threads", settings.threads, "of the throughput row (the processor's)")
        ->check(CLI::Range(1U, 64U));
    app.add_option("--only", settings.only, "sections to run, with commas between")
        ->delimiter(',')
        ->check(CLI::IsMember(sectionNames()));
    app.add_flag("--quick", settings.quick, "small and short, to see that it works: 100 thousand numbers, two rounds");
    app.add_option("--queries", settings.queries, "look-ups of a kind")
        ->check(CLI::Range(std::size_t{4096}, std::size_t{1} << 26))
        ->capture_default_str();
    app.add_option("--memory", given.gibibytes, "GiB that a part may use")->capture_default_str();
    app.add_option("--json", settings.json, "file for the results as JSON");
    app.add_option("--markdown", settings.markdown, "file for the tables as Markdown");
}

CLI::Option* addModes(CLI::App& app, Settings& settings, Given& given) {
    auto* const scale =
        app.add_option("--scale", given.scale, "memory and look-ups by size instead: numbers, with commas between")
            ->expected(0, 1);
    app.add_option("--data", settings.plotData, "file for the columns of --scale, as scripts/plot-bench reads them")
        ->needs(scale);
    app.add_flag("--hundred-million", given.hundredMillion, "the steps of a hundred million numbers instead")
        ->excludes(scale);
    return scale;
}

void fillIn(Settings& settings, Given const& given, bool scale) {
    settings.mode = scale ? Mode::SCALE : given.hundredMillion ? Mode::HUNDRED_MILLION : Mode::TABLE;
    settings.data.shape = shapes.at(settings.shape);
    settings.order = orders.at(given.order);
    std::uint64_t const most = given.hundredMillion ? HUNDRED_MILLION : settings.data.numbers;
    settings.data.numbers = given.numbers.value_or(settings.quick ? QUICK_NUMBERS : most);
    settings.rounds = given.rounds.value_or(settings.quick ? 2 : settings.rounds);
    settings.queries = settings.quick ? std::min<std::size_t>(settings.queries, 1 << 17) : settings.queries;
    settings.mostBytes = static_cast<std::uint64_t>(given.gibibytes * double(1ULL << 30));
    if (scale)
        settings.scale = numbersIn(given.scale.empty() ? DEFAULT_SCALE : given.scale);
}

} // namespace

std::optional<Settings> parse(int count, char** arguments, int& status) {
    CLI::App app("How fast and how large the number-portability cache is, beside other structures", "npbench");
    Settings settings;
    settings.threads = std::max(1U, std::thread::hardware_concurrency());
    Given given;
    addDataOptions(app, settings, given);
    addRunOptions(app, settings, given);
    CLI::Option const* const scale = addModes(app, settings, given);
    try {
        app.parse(count, arguments);
        fillIn(settings, given, scale->count() > 0);
        return settings;
    } catch (CLI::ParseError const& error) {
        status = app.exit(error) == 0 ? 0 : 2;
    } catch (std::logic_error const&) {
        std::cerr << "npbench: --scale takes numbers with commas between\n";
        status = 2;
    }
    return std::nullopt;
}

} // namespace npbench
