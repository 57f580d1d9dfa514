// What the benchmarks ask of the system: memory of this process, and parts that run in a process of their own.
//
// A structure is measured in a forked process, so that what the allocator kept of one does not hide the growth of the
// next, and a part that memory does not suffice for ends alone.
// Threads: fork only while there is one thread. Errors: std::runtime_error. Complexity: as what is run.
#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace npbench {

using Json = nlohmann::ordered_json;

// A structure that answers what it must not; ends the program.
class WrongAnswer : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The part did not fit into the memory it may use.
class NoRoom : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Runs `part` in a forked process that may use so many bytes, and hands over what it returns. Throws WrongAnswer and
// NoRoom (the latter for std::bad_alloc) as there, std::runtime_error for everything else.
Json inOwnProcess(std::uint64_t mostBytes, std::function<Json()> const& part);

// Gives back to the system what the allocator keeps, and tells how many bytes of memory that is no file's are resident.
std::uint64_t ownBytes();

std::uint64_t residentBytes();     // now, files' included
std::uint64_t peakResidentBytes(); // since the start or forgetPeak
void forgetPeak();

double processorSeconds(); // that all threads of this process have had

// What the figures were measured on.
Json describeMachine();

} // namespace npbench
