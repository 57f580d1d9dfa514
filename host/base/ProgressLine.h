// nphost::ProgressLine: tells whoever waits at a terminal how far long work has come.
//
// Purpose: while the object lives, a helper thread shows lines, rate and time left on standard error, from half a
// second after the start. Nothing is shown, and no thread started, where standard error is not a terminal.
// Units: `lines` is what is shown; `done` of `total` (bytes, say) gives the time left; total 0 is unknown.
// Ownership: the source is kept and must stay callable until destruction, which joins the thread and erases the line.
// Threads: construction and destruction by one thread; the source is called by the helper thread.
// Errors: without a thread or memory there is no progress line, nothing else.
// Complexity: a few calls a second.
#pragma once

#include "framework/BAS/Mutex.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

namespace nphost {

class ProgressLine {
  public:
    struct Reading {
        std::uint64_t lines = 0;
        std::uint64_t done = 0;
        std::uint64_t total = 0;
        char const* unit = "lines";
        std::string more = {}; // shown behind the rate
    };
    using Source = std::function<Reading()>;

    // `wanted` false: no progress line, for work whose output goes to the same terminal.
    ProgressLine(std::string label, Source source, bool wanted = true);
    ProgressLine(ProgressLine const&) = delete;
    ProgressLine& operator=(ProgressLine const&) = delete;
    ~ProgressLine();

  private:
    using Clock = std::chrono::steady_clock;

    void run() noexcept;
    void show() const noexcept;
    bool isStopped(std::chrono::milliseconds wait);

    std::string labelM;
    Source sourceM;
    Clock::time_point startM = Clock::now();
    BAS::Mutex lockM;
    std::condition_variable_any changedM;
    bool stopM NP_GUARDED_BY(lockM) = false;
    std::thread threadM;
};

// "12 lines, 3 lines/s, 4 s left"; the time left only where it is known.
std::string progressText(ProgressLine::Reading const& reading, double seconds);

} // namespace nphost
