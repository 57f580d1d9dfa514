// Exit statuses of the program, the same for every command.
#pragma once

namespace nphost {

enum ExitStatus : int {
    FINE = 0, // everything found, the file is clean, or every record could be used ('enrich')
    // Not found, a bad question, rejected lines or records, files that differ, a 'ctl' command that failed.
    NOT_FOUND = 1,
    FAILED = 2,  // usage, configuration or file errors; standard error has one line that says why
    REFUSED = 3, // the data file crosses a limit of the guard: 'run' does not start, 'check --guard' says so
};

} // namespace nphost
