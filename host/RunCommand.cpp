#include "host/RunCommand.h"

#include "host/ClientModules.h"
#include "host/Daemon.h"
#include "host/ExitStatus.h"

#include <optional>
#include <utility>
#include <vector>

namespace nphost {

int runDaemon(RunOptions const& options) {
    Signals signals;
    Configuration configuration = readConfiguration(options.common.configuration);
    LogTarget target(options.logFile.empty() ? configuration.logFile : options.logFile);
    ServiceNotifier notifier;
    // Before the load: two daemons must not both work on one data file for as long as a load takes.
    std::optional<ListeningSocket> socket;
    if (!configuration.socket.empty())
        socket.emplace(configuration.socket);
    notifier.status("loading");

    std::vector<std::filesystem::path> const clientFiles = std::move(configuration.clients);
    ReportHub hub;
    Host host(std::move(configuration), options.common, LogSettings{true, options.jsonLog, &target, &hub});
    host.start();
    ClientModules const clients(clientFiles, host.plugIn());
    Daemon({host, hub, target, signals, notifier, socket ? &*socket : nullptr}).run();
    return FINE;
}

} // namespace nphost
