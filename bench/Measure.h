// Clocks and distributions for the benchmarks.
#pragma once

#include <bit>
#include <chrono>
#include <cstdint>
#include <vector>
#if defined(__x86_64__)
#include <x86intrin.h>
#endif

namespace npbench {

using Ticks = std::uint64_t;

// A clock cheap enough to time single look-ups: the processor's time-stamp counter where there is one. The
// fences keep the look-up from being moved out from between two readings.
inline Ticks ticks() {
#if defined(__x86_64__)
    _mm_lfence();
    Ticks const now = __rdtsc();
    _mm_lfence();
    return now;
#else
    return static_cast<Ticks>(std::chrono::steady_clock::now().time_since_epoch().count());
#endif
}

double nanosecondsPerTick(); // measured once
double clockCostNs();        // the median distance of two readings that follow each other

double secondsSince(std::chrono::steady_clock::time_point begin);

// The middle one, or the mean of the two in the middle; 0 for none.
double median(std::vector<double> values);

// Keeps the compiler from leaving out what fills `value`.
template <class T>
void keep(T& value) {
    asm volatile("" : : "r"(&value) : "memory");
}

// Counts of durations in classes that are 1/32 wide of their value, so that tails need little memory.
class Histogram {
  public:
    Histogram() : countsM(64 * stepsCM) {}

    void add(Ticks duration) {
        ++countsM[classOf(duration)];
        ++totalM;
        if (duration > worstM)
            worstM = duration;
    }
    void add(Histogram const& other);
    double quantileNs(double fraction) const;
    double worstNs() const { return static_cast<double>(worstM) * nanosecondsPerTick(); }
    std::uint64_t total() const { return totalM; }

  private:
    static constexpr unsigned bitsCM = 5;
    static constexpr std::size_t stepsCM = 1U << bitsCM;

    static std::size_t classOf(Ticks duration) {
        if (duration < stepsCM)
            return duration;
        auto const shift = static_cast<unsigned>(std::bit_width(duration)) - 1 - bitsCM;
        return (shift + 1) * stepsCM + ((duration >> shift) - stepsCM);
    }
    static Ticks lowestOf(std::size_t index);

    std::vector<std::uint64_t> countsM;
    std::uint64_t totalM = 0;
    Ticks worstM = 0;
};

} // namespace npbench
