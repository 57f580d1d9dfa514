#include "host/RunCommand.h"

#include "host/ClientModules.h"
#include "host/Daemon.h"
#include "host/ExitStatus.h"
#include "host/HostError.h"
#include "host/SameFile.h"
#include "host/StandardError.h"
#include "host/Text.h"

#include <optional>
#include <utility>
#include <vector>

namespace nphost {

namespace {

// False when the guard refuses the first load; standard error then says why in one line.
bool load(Host& host, LoadGuard& guard, bool force) {
    LoadCheck check;
    {
        ProgressLine const progress(
            "nphost: checking", [&host] { return host.loadProgress(); }, guard.isOn());
        check = guard.check(LoadKind::FIRST_LOAD, host.plugIn().serviceStatus().dataFileName.str(), force);
    }
    if (check.guarded && !check.passed && !check.examined)
        host.fail("the data file could not be checked");
    if (!check.passed) {
        complain("the first load is refused: " + joined(check.reasons) + " (ERR_HOST_GUARD_REFUSED)");
        return false;
    }
    host.start();
    guard.ended();
    return true;
}

// Lines of the log would break the data or the configuration.
std::filesystem::path checkedLogFile(RunOptions const& options, Configuration const& configuration) {
    std::filesystem::path file = options.logFile.empty() ? configuration.logFile : options.logFile;
    char const* const kept = KeptFiles{configuration.dataFile(), options.common.configuration}.nameOf(file);
    if (!file.empty() && kept != nullptr)
        throw HostError("the log file " + visible(file.native()) + " is " + kept);
    return file;
}

} // namespace

int runDaemon(RunOptions const& options) {
    Signals signals;
    Configuration configuration = readConfiguration(options.common.configuration);
    LogTarget target(checkedLogFile(options, configuration));
    ServiceNotifier notifier;
    // Before the load: two daemons must not both work on one data file for as long as a load takes.
    std::optional<ListeningSocket> socket;
    if (!configuration.socket.empty())
        socket.emplace(configuration.socket);
    bool const announceChanges = configuration.announceChanges;
    notifier.status("loading");

    std::vector<std::filesystem::path> const clientFiles = std::move(configuration.clients);
    ReportHub hub;
    GuardLimits const limits = configuration.guard;
    Host host(std::move(configuration), options.common, LogSettings{true, options.jsonLog, &target, &hub});
    LoadGuard guard(limits, host.plugIn(), host.log());
    if (!load(host, guard, options.force))
        return REFUSED;
    ClientModules const clients(clientFiles, host.plugIn());
    Daemon({host, options.common.configuration, hub, target, signals, notifier, guard, socket ? &*socket : nullptr,
            announceChanges})
        .run();
    return FINE;
}

} // namespace nphost
