// nphost::HostSettings: where the host finds what it loads, as [host] names it.
//
//     module = "lib/DAT_NumberPortability.so"   # a name without a slash is searched for as the system does
//     messages = "messages.toml"                # the texts of the log
//     probeFolder = "lib"                       # where the probe definition file lies; the module's folder without it
//
// Threads: a value. Errors: those of Section.h.
#pragma once

#include "host/config/Configuration.h"

namespace nphost {

struct HostSettings { // empty: as installed or built
    std::filesystem::path module;
    std::filesystem::path messages;
    std::filesystem::path probeFolder;

    static void declare(Section& host, Configuration& configuration) {
        auto& settings = configuration.place<HostSettings>();
        host.module("module", settings.module);
        host.file("messages", settings.messages);
        host.file("probeFolder", settings.probeFolder);
    }
};

} // namespace nphost
