// nphost run by a shell, with its output in texts.
#pragma once

#include "tests/TemporaryFolder.h"

#include <cstdlib>
#include <string>
#include <sys/wait.h>

struct ProgramResult {
    int status = -1;
    std::string out;
    std::string err;
};

// The arguments are a shell's.
inline ProgramResult runProgram(std::string const& arguments) {
    TemporaryFolder const folder;
    std::string const command = std::string(NP_PROGRAM_FOLDER) + "/nphost " + arguments + " </dev/null >" +
                                folder.file("out") + " 2>" + folder.file("err");
    int const status = std::system(command.c_str()); // NOLINT(cert-env33-c,concurrency-mt-unsafe)
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), contentOf(folder.file("out")),
            contentOf(folder.file("err"))};
}

// A shell's commands, run in the folder; the program is 'nphost'.
inline ProgramResult runShell(TemporaryFolder const& folder, std::string const& commands) {
    TemporaryFolder const results;
    std::string const whole = "cd " + folder.path().string() + " && PATH=" NP_PROGRAM_FOLDER ":$PATH && { " + commands +
                              "; } </dev/null >" + results.file("out") + " 2>" + results.file("err");
    int const status = std::system(whole.c_str()); // NOLINT(cert-env33-c,concurrency-mt-unsafe)
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), contentOf(results.file("out")),
            contentOf(results.file("err"))};
}
