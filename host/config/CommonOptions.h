// nphost::CommonOptions: what every command is told.
//
// Purpose: the configuration's file, the sections that it may have, and how much of the log is shown.
// Ownership: the sections are borrowed; they are the program's own.
// Threads: a value.
// Errors: ConfigurationError and HostError as of readConfiguration; std::bad_alloc.
#pragma once

#include "host/base/Arguments.h"
#include "host/config/Configuration.h"

namespace nphost {

struct CommonOptions {
    std::filesystem::path configuration;
    bool verbose = false;
    Sections sections = {};

    Configuration readConfiguration() const { return nphost::readConfiguration(configuration, sections); }
};

inline Option addConfiguration(Arguments& arguments, CommonOptions& common,
                               std::string const& help = "The configuration file, TOML (required)") {
    return arguments.add("-c,--config", "FILE", common.configuration, help);
}

} // namespace nphost
