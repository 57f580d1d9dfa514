// Exit statuses of the program, the same for every command.
#pragma once

namespace nphost {

enum ExitStatus : int {
    FINE = 0,      // everything found, or the file is clean
    NOT_FOUND = 1, // something not found, a bad question, a file with rejected lines, or files that differ
    FAILED = 2,    // usage, configuration or file errors; standard error has one line that says why
    REFUSED = 3,   // the data file crosses a limit of the guard: 'run' does not start, 'check --guard' has said why
};

} // namespace nphost
