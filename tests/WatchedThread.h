// A thread whose sleep can be waited for: a test that wants to know who overtakes whom must know that somebody waits.
#pragma once

#include <atomic>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <unistd.h>

// Waits until the thread sleeps or has ended. One that only stumbles over a lock is seen awake again soon.
inline void waitUntilAsleep(pid_t thread) {
    constexpr int timesInARow = 5;
    for (int seen = 0; seen < timesInARow; std::this_thread::yield()) {
        std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
        std::string text;
        if (!std::getline(file, text))
            return;
        seen = text.compare(text.rfind(')') + 2, 1, "S") == 0 ? seen + 1 : 0;
    }
}

class WatchedThread {
  public:
    explicit WatchedThread(std::function<void()> act)
        : threadM([this, act = std::move(act)] {
              idM = gettid();
              act();
          }) {}
    ~WatchedThread() { threadM.join(); }
    WatchedThread(WatchedThread const&) = delete;
    WatchedThread& operator=(WatchedThread const&) = delete;

    void waitUntilAsleep() const {
        while (idM == 0)
            std::this_thread::yield();
        ::waitUntilAsleep(idM);
    }

  private:
    std::atomic<pid_t> idM{0};
    std::thread threadM;
};
