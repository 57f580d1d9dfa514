// Programs that tests start, and what they are configured with.
#pragma once

#include "tests/TemporaryFolder.h"

#include <csignal>
#include <initializer_list>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

struct Result {
    int status = -1; // its exit status, or minus the signal that ended it
    std::string out;
    std::string err;
};

inline int statusOf(int raw) {
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -WTERMSIG(raw);
}

inline int waitFor(pid_t process) {
    int raw = 0;
    waitpid(process, &raw, 0);
    return statusOf(raw);
}

// Spawn attributes that give a program the default dispositions of the signals that tests send or wait for: whoever
// runs the tests, a background job or nohup, may have them ignored.
class DefaultSignals {
  public:
    DefaultSignals() {
        sigset_t signals;
        sigemptyset(&signals);
        for (int const signal : {SIGINT, SIGHUP, SIGQUIT, SIGTERM, SIGPIPE})
            sigaddset(&signals, signal);
        posix_spawnattr_init(&attributesM);
        posix_spawnattr_setsigdefault(&attributesM, &signals);
        posix_spawnattr_setflags(&attributesM, POSIX_SPAWN_SETSIGDEF);
    }
    DefaultSignals(DefaultSignals const&) = delete;
    DefaultSignals& operator=(DefaultSignals const&) = delete;
    ~DefaultSignals() { posix_spawnattr_destroy(&attributesM); }

    posix_spawnattr_t const* get() const { return &attributesM; }

  private:
    posix_spawnattr_t attributesM{};
};

// The first of the arguments names the program's file.
inline pid_t spawn(std::vector<std::string> const& arguments, posix_spawn_file_actions_t const* actions = nullptr,
                   char* const* environment = environ) {
    std::vector<char*> argv;
    for (std::string const& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid_t process = -1;
    if (posix_spawn(&process, argv[0], actions, DefaultSignals().get(), argv.data(), environment) != 0)
        throw std::runtime_error("cannot start " + arguments[0]);
    return process;
}

// nphost with these arguments.
inline std::vector<std::string> commandOf(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), NP_PROGRAM_FOLDER "/nphost");
    return arguments;
}

inline std::string const configurationCM = "[DAT_NumberPortability]\nFileName = \"data.dat\"\n"
                                           "CountryCode = \"44\"\nNationalAccessCode = \"0\"\n";

// A data file and a configuration that names it, in a folder of their own.
struct ConfiguredFolder {
    explicit ConfiguredFolder(std::string const& content, std::string const& more = {})
        : data(folder.write("data.dat", content)), configuration(folder.write("nphost.toml", configurationCM + more)) {}
    TemporaryFolder folder;
    std::string data;
    std::string configuration;
};
