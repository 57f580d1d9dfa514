// nphost::StandardError: everything that the program says on standard error.
//
// Purpose: reports and the progress line share a terminal; here they take turns, so that neither is written into the
// other.
// Threads: all operations are safe from any thread; one at a time writes.
// Errors: none; what cannot be written is lost.
// Complexity: one system call a line.
#pragma once

#include "framework/BAS/Mutex.h"

#include <string_view>

namespace nphost {

class StandardError {
  public:
    static bool isTerminal() noexcept;

    // Writes one line; `text` brings its newline. A progress line that is shown gives way to it.
    static void write(std::string_view text) noexcept;

    // Shows `text` in place of the progress line before. Only for terminals.
    static void showProgress(std::string_view text) noexcept;
    static void eraseProgress() noexcept;

  private:
    static void eraseShown() noexcept NP_REQUIRES(lockM);

    static BAS::Mutex lockM;
    static bool progressShownM NP_GUARDED_BY(lockM);
};

// Writes all of it, or what can be written without waiting where the descriptor does not block.
void writeWhole(int descriptor, std::string_view text) noexcept;

// "nphost: ", the text on one line, and a newline.
void complain(std::string_view text) noexcept;

} // namespace nphost
