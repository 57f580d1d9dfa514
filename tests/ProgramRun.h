// nphost run by a shell, with its output in texts.
#pragma once

#include "tests/DefaultSignals.h"
#include "tests/TemporaryFolder.h"

#include <string>
#include <sys/wait.h>
#include <unistd.h>

struct ProgramResult {
    int status = -1;
    std::string out;
    std::string err;
};

// The exit status of a shell's command, or minus the signal that ended it.
inline int statusOfShell(std::string command) {
    std::string shell = "sh";
    std::string option = "-c";
    char* const arguments[] = {shell.data(), option.data(), command.data(), nullptr};
    int status = -1;
    pid_t process = -1;
    if (posix_spawn(&process, "/bin/sh", nullptr, DefaultSignals().get(), arguments, environ) == 0)
        waitpid(process, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// The arguments are a shell's.
inline ProgramResult runProgram(std::string const& arguments) {
    TemporaryFolder const folder;
    std::string const command = std::string(NP_PROGRAM_FOLDER) + "/nphost " + arguments + " </dev/null >" +
                                folder.file("out") + " 2>" + folder.file("err");
    int const status = statusOfShell(command);
    return {status, contentOf(folder.file("out")), contentOf(folder.file("err"))};
}

// A shell's commands, run in the folder; the program is 'nphost'.
inline ProgramResult runShell(TemporaryFolder const& folder, std::string const& commands) {
    TemporaryFolder const results;
    std::string const whole = "cd " + folder.path().string() + " && PATH=" NP_PROGRAM_FOLDER ":$PATH && { " + commands +
                              "; } </dev/null >" + results.file("out") + " 2>" + results.file("err");
    int const status = statusOfShell(whole);
    return {status, contentOf(results.file("out")), contentOf(results.file("err"))};
}
