// nphost::FileRoles: the files of a command that reads records and writes others, and that none is written by mistake.
//
// Purpose: a file that is read, or that the command needs otherwise, must not be written; nor must one file be two
// results. A shell may have opened one as standard output or standard error. What cannot be written is refused before
// the work.
// Units: "-" is standard input among the inputs; an output without a name is standard output.
// Ownership: values.
// Threads: no state.
// Errors: check throws HostError, in one line that names the file. Devices and pipes may be named more than once.
// Complexity: a few system calls a pair of files.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace nphost {

struct FileRoles {
    // A file that must stay, and what it is.
    struct Kept {
        std::string file; // empty: none
        char const* what;
        bool mayBeOutput = false; // but not the file of rejects
    };

    std::vector<std::string> inputs;
    std::optional<std::string> output;
    std::optional<std::string> rejects;
    std::vector<Kept> kept;

    void check() const;

  private:
    void checkResult(std::string const& written, bool isOutput) const;
};

// writeSummary for a command whose files are in place by then. Its HostError says so: the status alone, a failure's,
// would have them taken for what they were before. `whole`: the output is written; else at most the rejects are.
void writeSummaryOf(std::optional<std::string> const& output, bool whole, std::string const& object);

} // namespace nphost
