// nphost::isSameFile: whether two names mean one file, and the report of a listing that would replace the data file.
//
// Purpose: a listing must not replace the data file: whatever it leaves out would be lost.
// Threads: no state.
// Errors: std::bad_alloc; names that cannot be examined are compared as texts.
// Complexity: a few system calls.
#pragma once

#include <filesystem>
#include <string>

namespace nphost {

// The same file by hard or symbolic links, or, while it is not there, the same place.
bool isSameFile(std::filesystem::path const& one, std::filesystem::path const& other);

// Reports that a listing onto the data file was refused.
void reportPrintRefused(std::string const& target);

} // namespace nphost
