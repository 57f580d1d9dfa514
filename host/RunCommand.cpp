#include "host/RunCommand.h"

#include "host/Daemon.h"
#include "host/ExitStatus.h"

#include <optional>

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
    bool const announceChanges = configuration.announceChanges;
    notifier.status("loading");

    ReportHub hub;
    Host host(std::move(configuration), options.common, LogSettings{true, options.jsonLog, &target, &hub});
    host.start();
    Daemon({host, hub, target, signals, notifier, socket ? &*socket : nullptr, announceChanges}).run();
    return FINE;
}

} // namespace nphost
