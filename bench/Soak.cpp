// npsoak: look-ups on every core while reloads, delta loads and prints run back to back in the real module, commanded
// through its probes. Every answer is checked to be the old data's or the new data's, never a mixture, and every
// listing to hold one generation of the data. Look-up times are shown without and with loads going on.
//
//   npsoak [--seconds=120] [--numbers=200000]
//
// Shape: numbers of 14 digits, one record each, all of one generation's network; a reload brings the next generation.
// A delta adds one number more, which the next reload drops. Threads: one reader a core, the module's worker, and the
// main thread, which commands. Exit status 1 when an answer or a listing was wrong.
#include "bench/Measure.h"
#include "framework/BAS/InstrumentationProbeGroup.h"
#include "framework/OMF/InstrumentationProbeBrokerIf.h"
#include "framework/PLG/DataPlugIn.h"
#include "plugin/Operations.h"

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

using npbench::Histogram;

constexpr std::uint64_t firstNumber = 10'000'000'000;
constexpr char const* deltaNumber = "00449999999999";

struct Options {
    double seconds = 120;
    std::uint64_t numbers = 200'000;
};

// Waits for the outcome of the command under way.
class Outcomes : public BAS::LogSinkIf {
  public:
    void write(BAS::Status const& status) noexcept override {
        std::string const& identifier = status.identifier().str();
        if (status.severity() >= BAS::Status::MAJOR)
            std::fprintf(stderr, "npsoak: %s\n", identifier.c_str());
        if (identifier == "INF_NUM_PORT_PRINT_DATA")
            arrived(true);
    }
    void arrived(bool success) {
        std::lock_guard const guard(mutexM);
        doneM = true;
        successM = success;
        changedM.notify_all();
    }
    bool wait() {
        std::unique_lock lock(mutexM);
        changedM.wait(lock, [this] { return doneM; });
        doneM = false;
        return successM;
    }

  private:
    std::mutex mutexM;
    std::condition_variable changedM;
    bool doneM = false;
    bool successM = false;
};

class Root : public BAS::RegisteredObject {
  public:
    Root() : BAS::RegisteredObject(rootNameCM) {}
    bool receiveRequest(BAS::Message& request) override {
        request.arguments().append("Events");
        return true;
    }
};

class Events : public BAS::RegisteredObject {
  public:
    explicit Events(Outcomes& outcomes) : BAS::RegisteredObject("Events"), outcomesM(outcomes) {}
    void receiveMessage(BAS::Message const& message) override {
        outcomesM.arrived(message.command().str().ends_with("SUCCESSFUL"));
    }

  private:
    Outcomes& outcomesM;
};

using DAT::NumberPortability::PlugIn;
using Search = decltype(DAT::NumberPortability::Operations::search);

// What the readers know of the data: generations from `least`, whose reload has returned, to `most`, the one under way.
struct Truth {
    std::atomic<long> least{0};
    std::atomic<long> most{0};
    std::atomic<bool> stop{false};
    std::atomic<bool> loading{false};
    std::atomic<std::uint64_t> wrong{0};
};

struct Reader {
    Histogram idle;
    Histogram busy;
};

void look(PlugIn& plugIn, Search search, Options const& options, Truth& truth, Reader& reader, unsigned seed) {
    std::mt19937_64 random(seed);
    BAS::DateTime const when("20240101000000");
    DAT::NumberPortability::NumberPortabilityData out;
    while (!truth.stop) {
        BAS::String const number("0044" + std::to_string(firstNumber + random() % options.numbers).substr(1));
        bool const loading = truth.loading;
        long const least = truth.least;
        auto const begin = npbench::ticks();
        bool const found = search(plugIn, number, when, out);
        (loading ? reader.busy : reader.idle).add(npbench::ticks() - begin);
        long const generation = found ? std::strtol(out.networkIdM.c_str() + 1, nullptr, 10) : -1;
        if (generation < least || generation > truth.most)
            ++truth.wrong;
        if (search(plugIn, deltaNumber, when, out) && out.networkIdM.view() != "DELTA")
            ++truth.wrong;
    }
}

void writeGeneration(std::string const& file, Options const& options, long generation) {
    std::string const beside = file + ".new";
    {
        std::ofstream out(beside);
        for (std::uint64_t i = 0; i < options.numbers; ++i)
            out << "0044" << std::to_string(firstNumber + i).substr(1) << "  20200101000000  G" << generation << '\n';
    }
    std::filesystem::rename(beside, file);
}

// A listing must hold every number of one generation, and the delta's number.
bool isWhole(std::string const& file, Options const& options, long generation) {
    std::ifstream in(file);
    std::uint64_t lines = 0;
    std::string const network = "  G" + std::to_string(generation);
    for (std::string line; std::getline(in, line);)
        lines += line.ends_with(network) || line.ends_with("  DELTA") ? 1 : 0;
    return lines == options.numbers + 1;
}

void show(char const* what, Histogram const& times) {
    std::printf("%-12s %12llu look-ups   p50 %7.0f ns   p99 %7.0f ns   p99.9 %8.0f ns   worst %10.0f ns\n", what,
                static_cast<unsigned long long>(times.total()), times.quantileNs(0.5), times.quantileNs(0.99),
                times.quantileNs(0.999), times.worstNs());
}

void showAll(Options const& options, Truth const& truth, std::vector<Reader> const& readers, long rounds) {
    Reader all;
    for (Reader const& reader : readers) {
        all.idle.add(reader.idle);
        all.busy.add(reader.busy);
    }
    std::printf("%llu numbers, %zu reading threads, %ld rounds of reload, delta load and print, %llu wrong\n",
                static_cast<unsigned long long>(options.numbers), readers.size(), rounds,
                static_cast<unsigned long long>(truth.wrong.load()));
    show("no loads", all.idle);
    show("with loads", all.busy);
}

// Reloads, delta-loads and prints until the time is over; returns how many rounds.
long command(BAS::InstrumentationProbeGroup const& probes, Outcomes& outcomes, Options const& options, Truth& truth,
             std::filesystem::path const& folder) {
    std::string const main = folder / "main";
    std::string const delta = folder / "delta";
    std::string const listing = folder / "listing";
    std::ofstream(delta) << deltaNumber << "  20200101000000  DELTA\n";
    auto const asked = [&](std::size_t probe, std::string const& value) {
        probes[probe]->setValue(BAS::String(value));
        if (!outcomes.wait())
            ++truth.wrong;
    };
    auto const begin = std::chrono::steady_clock::now();
    long round = 0;
    while (npbench::secondsSince(begin) < options.seconds) {
        writeGeneration(main, options, ++round);
        truth.most = round;
        asked(0, "FALSE");
        truth.least = round;
        asked(1, delta);
        asked(2, listing);
        if (!isWhole(listing, options, round) || !isWhole(main, options, round))
            ++truth.wrong;
    }
    return round;
}

Options parse(int count, char** arguments) {
    Options options;
    for (int i = 1; i < count; ++i) {
        std::string const argument = arguments[i];
        if (argument.starts_with("--seconds="))
            options.seconds = std::strtod(argument.c_str() + 10, nullptr);
        else if (argument.starts_with("--numbers="))
            options.numbers = std::strtoull(argument.c_str() + 10, nullptr, 10);
        else {
            std::fprintf(stderr, "usage: npsoak [--seconds=120] [--numbers=200000]\n");
            std::exit(2); // NOLINT(concurrency-mt-unsafe)
        }
    }
    return options;
}

BAS::RegistryEntry registryFor(std::string const& file) {
    BAS::RegistryEntry root("ROOT");
    BAS::RegistryEntry& subtree = root.append(BAS::RegistryEntry("NP"));
    subtree.append(BAS::RegistryEntry("FileName", BAS::String(file)));
    subtree.append(BAS::RegistryEntry("CountryCode", "44"));
    subtree.append(BAS::RegistryEntry("NationalAccessCode", "0"));
    return root;
}

int soak(Options const& options, std::filesystem::path const& folder) {
    std::filesystem::path const library = std::filesystem::canonical("/proc/self/exe").parent_path() / "../lib";
    OMF::InstrumentationProbeBrokerIf::installFolder(BAS::String(library.string()));
    void* const module = dlopen((library / "DAT_NumberPortability.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        std::fprintf(stderr, "npsoak: %s\n", dlerror()); // NOLINT(concurrency-mt-unsafe)
        return 2;
    }
    auto* const operations = reinterpret_cast<decltype(&NumberPortabilityOperations)>(
        dlsym(module, "NumberPortabilityOperations")); // built together, so they fit

    writeGeneration(folder / "main", options, 0);
    BAS::RegistryEntry const registry = registryFor(folder / "main");
    BAS::RegisteredObject::installRegistry(&registry);
    Outcomes outcomes;
    BAS::RegisteredObject::installLogSink(&outcomes);
    Root const root;
    Events const events(outcomes);
    PlugIn* const object = operations()->create("NP");
    std::unique_ptr<PLG::DataPlugIn> const plugIn(object);
    if (!plugIn->init())
        return 2;
    BAS::InstrumentationProbeList list;
    plugIn->getInstrumentationProbe(list);

    Truth truth;
    std::vector<Reader> readers(std::max(2U, std::thread::hardware_concurrency()));
    std::vector<std::thread> threads;
    for (Reader& reader : readers)
        threads.emplace_back([&, seed = static_cast<unsigned>(threads.size())] {
            look(*object, operations()->search, options, truth, reader, seed);
        });
    std::this_thread::sleep_for(std::chrono::duration<double>(options.seconds / 10));
    truth.loading = true;
    long const rounds =
        command(dynamic_cast<BAS::InstrumentationProbeGroup&>(*list[0]), outcomes, options, truth, folder);
    truth.stop = true;
    for (std::thread& thread : threads)
        thread.join();
    plugIn->shutdown();

    showAll(options, truth, readers, rounds);
    return truth.wrong == 0 ? 0 : 1;
}

} // namespace

int main(int count, char** arguments) {
    Options const options = parse(count, arguments);
    std::string folder = (std::filesystem::temp_directory_path() / "npsoak-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr) {
        std::perror("npsoak");
        return 2;
    }
    int const status = soak(options, folder);
    BAS::RegisteredObject::installLogSink(nullptr);
    BAS::RegisteredObject::installRegistry(nullptr);
    std::filesystem::remove_all(folder);
    return status;
}
