// npbench: how fast and how large the number-portability cache is.
//
//   npbench                            10 million numbers; needs about 16 GiB of memory
//   npbench --np_numbers=1000000       a smaller run
//   npbench --np_sorted                the file's numbers in order, as the system itself writes them
//   npbench --np_seed=7                other data of the same shape
//   npbench --benchmark_filter=LookUp  and every other flag of Google Benchmark
//
// The data are generated (PortabilityData.h says what they look like), written to a file in a temporary
// folder and read from there. Numbers, seed, order and the cost of the clock stand in the output's heading.
// Rows:
//
//   ReadLines/...       seconds to read the file's lines and do nothing with them
//   LoadOneTree         one tree filled by the record parser; its memory; its rate against bare reading
//   FreeOneTree         that tree freed
//   LoadBothTrees       the first load of a cache manager
//   ReadLock            taking and releasing the lock of look-ups
//   LookUp/method/kind  look-ups in random order; ns_each is the mean of a thread
//   Tail/method/kind    look-ups timed one by one: the clock's cost is in it, and none overlaps the next
//   Beside/...          best-match hits, timed alone and while a reload runs; threads:0 is the reload alone
//
// Rows that hold the same data share them: a filter that leaves out LoadBothTrees loads all the same.
#include "bench/Benchmarks.h"
#include "bench/Measure.h"

#include <benchmark/benchmark.h>
#include <charconv>
#include <exception>
#include <iostream>
#include <string_view>

namespace {

// Takes the flags of this program out of the command line; false for one that makes no sense.
bool readOptions(int& argc, char** argv, npbench::Options& options) {
    auto const number = [](std::string_view text, std::uint64_t& value) {
        auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        return error == std::errc() && end == text.data() + text.size();
    };
    constexpr std::string_view numbers = "--np_numbers=", seed = "--np_seed=";
    int kept = 1;
    bool good = true;
    for (int i = 1; i < argc; ++i) {
        std::string_view const argument = argv[i];
        if (argument.starts_with(numbers))
            good = good && number(argument.substr(numbers.size()), options.numbers) && options.numbers >= 1000;
        else if (argument.starts_with(seed))
            good = good && number(argument.substr(seed.size()), options.seed);
        else if (argument == "--np_sorted")
            options.sorted = true;
        else
            argv[kept++] = argv[i];
    }
    argc = kept;
    return good;
}

void describe(npbench::Options const& options) {
    benchmark::AddCustomContext("np_numbers", std::to_string(options.numbers) + " of 14 digits, half in dense blocks");
    benchmark::AddCustomContext("np_seed", std::to_string(options.seed));
    benchmark::AddCustomContext("np_order", options.sorted ? "sorted" : "random");
    benchmark::AddCustomContext("np_clock_cost_ns", std::to_string(npbench::clockCostNs()));
}

} // namespace

int main(int argc, char** argv) {
    try {
        npbench::Options options;
        if (!readOptions(argc, argv, options)) {
            std::cerr << "usage: npbench [--np_numbers=N (1000 or more)] [--np_seed=N] [--np_sorted] [flags]\n";
            return 2;
        }
        describe(options);
        benchmark::Initialize(&argc, argv);
        if (benchmark::ReportUnrecognizedArguments(argc, argv))
            return 2;
        npbench::World world(options);
        npbench::registerBenchmarks(world, options.numbers);
        benchmark::RunSpecifiedBenchmarks();
        return 0;
    } catch (std::exception const& failure) {
        std::cerr << "npbench: " << failure.what() << '\n';
        return 1;
    }
}
