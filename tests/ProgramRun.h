// nphost run by a shell, with its output in texts.
#pragma once

#include "tests/Spawn.h"
#include "tests/TemporaryFolder.h"

#include <string>

// A shell's commands, run in the folder; the program is 'nphost'.
inline Result runShell(TemporaryFolder const& folder, std::string const& commands) {
    TemporaryFolder const results;
    std::string const whole = "cd " + folder.path().string() + " && PATH=" NP_PROGRAM_FOLDER ":$PATH && { " + commands +
                              "; } </dev/null >" + results.file("out") + " 2>" + results.file("err");
    int const status = waitFor(spawn({"/bin/sh", "-c", whole}));
    return {status, contentOf(results.file("out")), contentOf(results.file("err"))};
}

// The arguments are a shell's.
inline Result runProgram(std::string const& arguments) {
    return runShell(TemporaryFolder(), "nphost " + arguments);
}
