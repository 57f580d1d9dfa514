// nphost::isSameFile and KeptFiles: whether two names mean one file, and which files a listing or a log must not
// destroy.
//
// Purpose: a listing must not replace the data file, since whatever it leaves out would be lost, nor the configuration,
// the log or the control socket, nor go where the daemon has something else open.
// Ownership: KeptFiles owns its names; plain functions otherwise.
// Threads: no state that changes.
// Errors: std::bad_alloc; names that cannot be examined are compared as texts.
// Complexity: a few system calls.
#pragma once

#include <filesystem>
#include <string>

namespace nphost {

// The same file by hard or symbolic links, or, while it is not there, the same place: also by a link to it.
bool isSameFile(std::filesystem::path const& one, std::filesystem::path const& other);

struct KeptFiles {
    std::filesystem::path dataFile; // these are empty: none
    std::filesystem::path configuration;
    std::filesystem::path logFile = {};
    std::filesystem::path socket = {};
    bool isService = false; // the file behind standard error is its log, and descriptors beyond are nobody else's

    // What the target is of these, in words: "the data file itself"; null when it is none of them.
    char const* nameOf(std::filesystem::path const& target) const;
};

// Reports that a listing onto such a file was refused.
void reportPrintRefused(std::string const& target, char const* what);

} // namespace nphost
