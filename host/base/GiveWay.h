// nphost::giveWay: lets a thread's work come after that of whoever answers questions.
//
// Purpose: lowers the nice value of the calling thread by ten, which leaves it a tenth of a processor that others want
// wholly, and all of one that nobody wants. Loads are long, questions short: without it a question waits for the end of
// a load's time slice, some milliseconds.
// Threads: the calling thread, and those that it starts afterwards. Without privileges it cannot be taken back.
// Errors: none; a kernel that refuses it leaves the thread as it was.
// Complexity: two system calls. setpriority(2): nice values are the threads' own on Linux.
#pragma once

namespace nphost {

void giveWay() noexcept;

} // namespace nphost
