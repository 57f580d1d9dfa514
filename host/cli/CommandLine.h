// The command line of nphost: its commands, options and help texts.
//
// Purpose: reads the arguments, runs the command that they name, and turns whatever goes wrong into one line on
// standard error.
// Threads: the main thread, once.
// Errors: none; the result is the exit status (ExitStatus.h).
// Complexity: the command's.
#pragma once

namespace nphost {

int run(int argc, char const* const* argv) noexcept;

} // namespace nphost
