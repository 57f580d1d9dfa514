// nphost::LineInput: reads lines from a descriptor that may pause.
//
// Purpose: reads standard input in large blocks, and says when it is about to wait, so that a program that asks one
// question at a time gets each answer before it must ask the next. Lines end at a newline, which is not part of them;
// the last one may lack it. A carriage return before it goes too.
// Ownership: borrows the descriptor. A line stays valid until the next call.
// Threads: one thread at a time.
// Errors: HostError with the system's reason when a read fails; std::bad_alloc for a line that memory cannot hold.
// Complexity: linear in the bytes; lines of any length, the buffer grows to hold the longest.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

namespace nphost {

class LineInput {
  public:
    // `beforeRead` is called before every read, which may wait.
    LineInput(int descriptor, std::function<void()> beforeRead)
        : descriptorM(descriptor), beforeReadM(std::move(beforeRead)), bufferM(blockSizeCM) {}
    LineInput(LineInput const&) = delete;
    LineInput& operator=(LineInput const&) = delete;

    // False at the end of the input.
    bool next(std::string_view& line);

  private:
    static constexpr std::size_t blockSizeCM = 256UL * 1024;

    bool fill();
    std::string_view take(std::size_t length, std::size_t withEnd);

    int descriptorM;
    std::function<void()> beforeReadM;
    std::vector<char> bufferM;
    std::size_t beginM = 0; // what was read and not yet returned
    std::size_t endM = 0;
    std::size_t searchedM = 0; // holds no newline between beginM and here
    bool atEndM = false;
};

} // namespace nphost
