#include "bench/Measure.h"

#include <algorithm>
#include <thread>

namespace npbench {

double secondsSince(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

double nanosecondsPerTick() {
    static double const value = [] {
        auto const begin = std::chrono::steady_clock::now();
        Ticks const first = ticks();
        // Long enough for the error of the two clocks' readings to vanish.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        Ticks const last = ticks();
        return secondsSince(begin) * 1e9 / static_cast<double>(last - first);
    }();
    return value;
}

// Part of every time that is measured by ticks(): whoever reads small ones must know it.
double clockCostNs() {
    Histogram readings;
    for (int i = 0; i < 100'000; ++i) {
        Ticks const first = ticks();
        readings.add(ticks() - first);
    }
    return readings.quantileNs(0.5);
}

double median(std::vector<double> values) {
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    std::size_t const middle = values.size() / 2;
    return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

void Histogram::add(Histogram const& other) {
    for (std::size_t i = 0; i < countsM.size(); ++i)
        countsM[i] += other.countsM[i];
    totalM += other.totalM;
    worstM = std::max(worstM, other.worstM);
}

double Histogram::quantileNs(double fraction) const {
    auto left = static_cast<std::uint64_t>(fraction * static_cast<double>(totalM));
    std::size_t index = 0;
    // The class in which that share of all is reached; its lower end stands for it, at most 1/32 too low.
    while (index + 1 < countsM.size() && countsM[index] <= left) {
        left -= countsM[index];
        ++index;
    }
    return static_cast<double>(lowestOf(index)) * nanosecondsPerTick();
}

Ticks Histogram::lowestOf(std::size_t index) {
    if (index < stepsCM)
        return index;
    std::size_t const shift = index / stepsCM - 1;
    return static_cast<Ticks>(stepsCM + index % stepsCM) << shift;
}

} // namespace npbench
