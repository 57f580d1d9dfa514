// TOML files of the host: reading, parsing and errors that name file and line.
//
// Purpose: what the configuration and the message catalogue have in common.
// Threads: no state.
// Errors: ConfigurationError, one line each; std::bad_alloc.
// Complexity: linear in the text.
#pragma once

#include "host/config/ConfigurationError.h"

#include <filesystem>
#include <string>
#include <string_view>
#include <toml++/toml.h>

namespace nphost {

// Of a file that is too large to be parsed, its beginning, which is too large as well. What is no regular file is
// refused: a pipe would hold up whoever reads it, and these are read while a daemon serves.
std::string readWhole(std::filesystem::path const& file);
// The same of whatever can be read: of what is read once, for whoever started the program and waits.
std::string readWholeOrPipe(std::filesystem::path const& file);
// Text beyond OMF::TomlLimits is refused before the parser sees it.
toml::table parseToml(std::string_view text, std::filesystem::path const& file);

// "file:line: reason"
ConfigurationError errorAt(std::filesystem::path const& file, toml::source_region const& where,
                           std::string_view reason);

} // namespace nphost
