// nphost::DaemonFiles: the files that the daemon keeps open, as [host] names them.
//
//     socket = "nphost.socket"   # where the daemon is asked; without it there is no control socket
//     logFile = "nphost.log"     # the daemon's log; without it standard error
//
// Purpose: the daemon uses them, and the other commands must not write onto them.
// Threads: a value. Errors: those of Section.h.
#pragma once

#include "host/config/Configuration.h"

namespace nphost {

struct DaemonFiles { // empty: not configured
    std::filesystem::path socket;
    std::filesystem::path logFile;

    static void declare(Section& host, Configuration& configuration) {
        auto& files = configuration.place<DaemonFiles>();
        host.file("socket", files.socket);
        host.file("logFile", files.logFile);
    }
};

} // namespace nphost
