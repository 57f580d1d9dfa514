// The measurements of npbench; Main.cpp says what each row means.
#pragma once

#include "bench/World.h"

namespace npbench {

// The world must outlive the run.
void registerBenchmarks(World& world, std::uint64_t numbers);

} // namespace npbench
