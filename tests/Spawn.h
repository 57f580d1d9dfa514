// Spawn attributes that give a program the default dispositions of the signals that tests send or wait for: whoever runs
// the tests, a background job or nohup, may have them ignored.
#pragma once

#include <csignal>
#include <initializer_list>
#include <spawn.h>

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
