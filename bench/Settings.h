// npbench's command line.
#pragma once

#include "bench/PortabilityData.h"

#include <optional>
#include <string>
#include <vector>

namespace npbench {

enum class Mode { TABLE, SCALE, HUNDRED_MILLION };

struct Settings {
    Mode mode = Mode::TABLE;
    DataOptions data;
    std::string shape = "mixed"; // the name of data.shape
    Order order = Order::SHUFFLED;
    unsigned rounds = 5;
    unsigned threads = 1; // of the throughput row
    bool quick = false;
    std::size_t queries = 1 << 20;         // of a kind
    std::vector<std::string> only;         // sections; all when empty
    std::uint64_t mostBytes = 18ULL << 30; // of memory
    std::vector<std::uint64_t> scale;      // numbers of each step
    std::string json, markdown, plotData;  // files to write, or empty
};

// Nothing when the program is to end at once, with `status`.
std::optional<Settings> parse(int count, char** arguments, int& status);

} // namespace npbench
