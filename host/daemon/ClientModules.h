// nphost::ClientModules: the client modules of a daemon.
//
// Purpose: loads the shared objects that the configuration names, starts each with the plug-in, and stops them in the
// reverse order. plugin/PlugInClient.h says what a client module is.
// Ownership: owns the mappings until its destruction, also of clients that did not start: nobody knows what they left
// behind. Borrows the plug-in, which must outlive it.
// Threads: one thread.
// Errors: what is wrong with a client is reported ("ERR_HOST_CLIENT", severity 4: file, reason), and the others go on.
// Construction throws std::bad_alloc.
// Complexity: the clients'.
#pragma once

#include "host/config/Configuration.h"
#include "host/module/LoadedModule.h"

#include <filesystem>
#include <vector>

namespace nphost {

class ClientModules {
  public:
    //     clients = ["lib/rating.so"]   # in [host]: the daemon's client modules; names without a slash as for module
    struct Settings {
        std::vector<std::filesystem::path> clients;

        static void declare(Section& host, Configuration& configuration) {
            host.modules("clients", configuration.place<Settings>().clients);
        }
    };

    // Names without a slash are searched for as the system searches for libraries.
    ClientModules(std::vector<std::filesystem::path> const& files, LoadedPlugIn& plugIn);
    ClientModules(ClientModules const&) = delete;
    ClientModules& operator=(ClientModules const&) = delete;
    ~ClientModules();

  private:
    using Stop = void();
    struct Client {
        std::filesystem::path file;
        SharedObject object;
        Stop* stop; // null: not started, or nothing to stop
    };

    void start(std::filesystem::path const& file, LoadedPlugIn& plugIn);

    std::vector<Client> clientsM;
};

} // namespace nphost
