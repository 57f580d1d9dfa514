// Random numbers whose seed is shown where a test fails.
#pragma once

#include <gtest/gtest.h>
#include <random>

class SeededRandom : public std::mt19937 {
  public:
    SeededRandom() : SeededRandom(std::random_device()()) {}

  private:
    explicit SeededRandom(unsigned seed)
        : std::mt19937(seed), traceM(__FILE__, __LINE__, "seed " + std::to_string(seed)) {}

    testing::ScopedTrace traceM;
};
