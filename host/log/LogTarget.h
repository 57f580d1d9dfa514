// nphost::LogTarget: where the lines of the log go: standard error, or a file that can be opened anew.
//
// Purpose: a program that rotates logs renames the file and then asks for it to be reopened; no line is lost between.
// Ownership: owns the open file.
// Threads: all operations are safe from any thread; one at a time writes.
// Errors: construction throws HostError when the file cannot be opened. A reopening that fails leaves the old file in
// use and says why. What cannot be written is lost, and write says so; the line after a half one begins anew.
// Complexity: one system call a line.
#pragma once

#include "framework/BAS/Mutex.h"
#include "host/base/FileDescriptor.h"

#include <filesystem>
#include <string>
#include <string_view>

namespace nphost {

class LogTarget {
  public:
    // Appends to the file, which is made with mode 0640 when it is not there; standard error when `file` is empty.
    explicit LogTarget(std::filesystem::path file);
    LogTarget(LogTarget const&) = delete;
    LogTarget& operator=(LogTarget const&) = delete;

    // `line` brings its newline.
    // False when it could not be written whole.
    bool write(std::string_view line) noexcept;

    // Empty, or why the file could not be opened anew. Nothing to do for standard error.
    std::string reopen();

  private:
    FileDescriptor open() const;

    std::filesystem::path const fileM;
    BAS::Mutex lockM;
    FileDescriptor descriptorM NP_GUARDED_BY(lockM);
    bool halfM NP_GUARDED_BY(lockM) = false; // the file ends in a line without its newline
};

} // namespace nphost
