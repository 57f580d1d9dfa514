#include "host/daemon/RunCommand.h"

#include "host/base/ExitStatus.h"
#include "host/base/HostError.h"
#include "host/base/StandardError.h"
#include "host/base/Text.h"
#include "host/daemon/ClientModules.h"
#include "host/daemon/Daemon.h"
#include "host/log/OwnReport.h"
#include "host/records/SameFile.h"

#include <future>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace nphost {

namespace {

enum class FirstLoad { DONE, REFUSED, STOPPED };

// When the guard refuses, standard error says why in one line.
FirstLoad load(Host& host, LoadGuard& guard, bool force) {
    LoadCheck check;
    {
        ProgressLine const progress(
            "nphost: checking", [&host] { return host.loadProgress(); }, guard.isOn());
        check = guard.check(LoadKind::FIRST_LOAD, host.plugIn().serviceStatus().dataFileName.str(), force);
    }
    if (check.stopped)
        return FirstLoad::STOPPED;
    if (check.guarded && !check.passed && !check.examined)
        host.fail("the data file could not be checked");
    if (!check.passed) {
        complain("the first load is refused: " + joined(check.reasons) + " (ERR_HOST_GUARD_REFUSED)");
        return FirstLoad::REFUSED;
    }
    host.start();
    guard.ended();
    return FirstLoad::DONE;
}

// The load has a thread of its own, so that a signal to stop ends it. What it throws travels, but after such a signal.
FirstLoad loadUnlessStopped(Host& host, LoadGuard& guard, Signals& signals, bool force) {
    WakeUp const ended;
    auto loading = std::async(std::launch::async, [&] {
        std::unique_ptr<WakeUp const, void (*)(WakeUp const*)> const atEnd(&ended, [](auto* end) { end->wake(); });
        return load(host, guard, force);
    });
    if (!signals.awaitStop(ended))
        return loading.get();
    guard.stop();
    loading.wait();
    return FirstLoad::STOPPED;
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
    StandardError::beOfService();
    Configuration configuration = readConfiguration(options.common.configuration);
    std::filesystem::path const logFile = checkedLogFile(options, configuration);
    LogTarget target(logFile);
    ServiceNotifier notifier;
    // Before the load: two daemons must not both work on one data file for as long as a load takes.
    std::optional<ListeningSocket> socket;
    if (!configuration.socket.empty())
        socket.emplace(configuration.socket);
    bool const announceChanges = configuration.announceChanges;
    std::filesystem::path const dataFolder = std::filesystem::path(configuration.dataFile()).parent_path();
    auto const deltaFolders = configuration.deltaFolders.value_or(std::vector{dataFolder});
    notifier.status("loading");

    std::vector<std::filesystem::path> const clientFiles = std::move(configuration.clients);
    ReportHub hub;
    GuardLimits const limits = configuration.guard;
    Host host(std::move(configuration), options.common, LogSettings{true, options.jsonLog, &target, &hub});
    LoadGuard guard(limits, host.plugIn(), host.log());
    DataFileState dataFile(host.plugIn());
    dataFile.begin();
    FirstLoad const loaded = loadUnlessStopped(host, guard, signals, options.force);
    if (loaded == FirstLoad::REFUSED)
        return REFUSED;
    if (loaded == FirstLoad::STOPPED) {
        notifier.stopping("stopping");
        reportOwn("INF_HOST_STOPPING", BAS::Status::NORMAL, {});
        return FINE;
    }
    ClientModules const clients(clientFiles, host.plugIn());
    Daemon({host, options.common.configuration, hub, target, signals, notifier, guard, dataFile,
            socket ? &*socket : nullptr, announceChanges, logFile, deltaFolders})
        .run();
    return FINE;
}

} // namespace nphost
