// nphost::ConfigurationError: a configuration file, or another TOML file of the host's, that cannot be used.
//
// Purpose: what reading it throws; the commands show it and end with status 2.
// Threads: a value. Errors: std::bad_alloc.
#pragma once

#include <stdexcept>

namespace nphost {

// One clear line: file:line: reason.
class ConfigurationError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

} // namespace nphost
