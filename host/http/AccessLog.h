// nphost::AccessLog: a line of JSON for each request over HTTP.
//
// Purpose: who asked what, when it is asked for by [http] accessLog. Numbers are in it only with logNumbers; otherwise
// the route stands for the path.
// Ownership: owns its file, its thread and what is still to be written.
// Threads: note, isOn and reopen by any. A thread of its own writes, so that no request waits for the disk.
// Errors: construction throws HostError; what finds no room (1 MiB waits at the most) or cannot be written, to a pipe
// within a second, is lost, and the next line that is written tells how many were.
// Complexity: linear in the line.
#pragma once

#include "framework/BAS/Mutex.h"
#include "host/base/FileDescriptor.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>

namespace nphost {

class AccessLog {
  public:
    struct Entry {
        std::string_view address; // empty: a UNIX socket's
        std::string_view method;
        std::string_view route;
        std::string_view target; // with the number
        std::string_view client; // empty: nobody in particular
        unsigned int status = 0;
        std::size_t bytes = 0;
        std::chrono::microseconds duration{};
    };

    // Without a file there is no log.
    AccessLog(std::filesystem::path file, bool numbers);
    AccessLog(AccessLog const&) = delete;
    AccessLog& operator=(AccessLog const&) = delete;
    ~AccessLog();

    bool isOn() const { return !fileM.empty(); }
    void note(Entry const& entry) noexcept;
    // For rotation. HostError when the file cannot be opened; the old one is written on.
    void reopen();

  private:
    static constexpr std::size_t mostWaitingCM = 1024UL * 1024;

    FileDescriptor open() const;
    static std::string_view unwritten(int descriptor, std::string_view text);
    void run();

    std::filesystem::path const fileM;
    bool const numbersM;
    BAS::Mutex lockM;
    std::condition_variable_any changedM;
    FileDescriptor descriptorM NP_GUARDED_BY(lockM);
    FileDescriptor freshM NP_GUARDED_BY(lockM); // takes its place
    std::string waitingM NP_GUARDED_BY(lockM);
    std::uint64_t lostM NP_GUARDED_BY(lockM) = 0;
    bool stopM NP_GUARDED_BY(lockM) = false;
    std::thread threadM;
};

} // namespace nphost
