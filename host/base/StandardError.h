// nphost::StandardError: everything that the program says on standard error.
//
// Purpose: reports and the progress line share a terminal; here they take turns, so that neither is written into the
// other. A command waits for whoever reads; a service does not stand still with its log.
// Threads: all operations are safe from any thread; one at a time writes.
// Errors: what cannot be written is lost, and write says so; keepOff throws HostError.
// Complexity: one system call a line.
#pragma once

#include "framework/BAS/Mutex.h"

#include <cstddef>
#include <filesystem>
#include <string_view>

namespace nphost {

class StandardError {
  public:
    static bool isTerminal() noexcept;

    // Writes one line; `text` brings its newline. A progress line that is shown gives way to it.
    // False when it could not be written whole.
    static bool write(std::string_view text) noexcept;

    // From here on a line that nobody makes room for is given up after a second, and those behind it at once until
    // there is room again; the line after half a one begins anew.
    static void beOfService() noexcept;

    // Shows `text` in place of the progress line before. Only for terminals.
    static void showProgress(std::string_view text) noexcept;
    static void eraseProgress() noexcept;

    // For a regular file that the program reads and must not write: throws when a shell has opened standard error onto
    // it. From then on standard error is /dev/null, because the reason would be written into the file, too.
    static void keepOff(std::filesystem::path const& file, char const* what);

  private:
    static constexpr int patienceMillisecondsCM = 1000;

    static void eraseShown() noexcept NP_REQUIRES(lockM);
    static bool isStuck() noexcept NP_REQUIRES(lockM);
    // Returns how many bytes.
    static std::size_t writeAll(std::string_view text) noexcept NP_REQUIRES(lockM);

    static BAS::Mutex lockM;
    static bool progressShownM NP_GUARDED_BY(lockM);
    static bool serviceM NP_GUARDED_BY(lockM);
    static bool stuckM NP_GUARDED_BY(lockM); // a service found no room the last time
    static bool halfM NP_GUARDED_BY(lockM);  // of a service's last line
};

// "nphost: ", the text on one line, and a newline.
void complain(std::string_view text) noexcept;

} // namespace nphost
