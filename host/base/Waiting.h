// nphost::Waiting: reading and writing descriptors that are not ready, also those that somebody made non-blocking.
//
// Purpose: a pipe's other end may share its flags with the program, so whether a descriptor blocks is not the program's
// to say. Here either kind waits, and a signal that Interruption noted ends the wait.
// Ownership: borrows the descriptor.
// Threads: all functions are safe from any thread.
// Errors: as each function says.
// Complexity: constant, and linear in the bytes.
#pragma once

#include <cstddef>
#include <string_view>

namespace nphost {

// Waits a tenth of a second at most for `events` of poll. True also for a descriptor in error: what is wrong, the read
// or write says.
bool becomesReady(int descriptor, short events) noexcept;

// Writes all of it, waiting for whoever reads. Returns 0, or the system's error. Throws Interrupted when nobody reads
// any more, or a signal was noted.
int writeWaiting(int descriptor, std::string_view text);

// Writes all of it, or what can be written without waiting where the descriptor does not block. Returns how many bytes;
// errno says why they are not all.
std::size_t writeWhole(int descriptor, std::string_view text) noexcept;

} // namespace nphost
