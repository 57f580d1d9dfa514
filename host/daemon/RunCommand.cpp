#include "host/daemon/RunCommand.h"

#include "host/base/ExitStatus.h"
#include "host/base/HostError.h"
#include "host/base/PassedSockets.h"
#include "host/base/StandardError.h"
#include "host/base/Text.h"
#include "host/config/DaemonFiles.h"
#include "host/daemon/ClientModules.h"
#include "host/daemon/Daemon.h"
#include "host/dns/EnumSettings.h"
#include "host/http/HttpSettings.h"
#include "host/log/OwnReport.h"
#include "host/module/Host.h"
#include "host/records/SameFile.h"

#include <algorithm>
#include <filesystem>
#include <future>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace nphost {

namespace {

constexpr char const* runHelpCM =
    R"(Loads the data and serves them until SIGTERM or SIGINT. SIGHUP reloads the data and
reopens the log file. With the key 'socket' in [host] the daemon is asked and commanded
by 'nphost ctl'; the key 'clients' names modules that look numbers up within the daemon.

With limits in [host.guard] the file is read before it is loaded, and refused if it
crosses one; so is that of every reload and delta. --force lets the first load pass.

Exit status: 0 stopped by a signal; 2 it could not start, 3 the guard refuses the data
file; one line on standard error says why.

Example:
  nphost run --config /etc/numberportability/nphost.toml

)";

struct RunOptions {
    CommonOptions common;
    std::filesystem::path logFile; // empty: as configured
    bool jsonLog = false;
    bool force = false; // the first load is not checked
};

enum class FirstLoad { DONE, REFUSED, STOPPED };

// When the guard refuses, standard error says why in one line.
FirstLoad load(Host& host, LoadGuard& guard, Metrics& metrics, bool force) {
    LoadCheck check;
    {
        ProgressLine const progress(
            "nphost: checking", [&host] { return host.loadProgress(); }, guard.isOn());
        check = guard.check(LoadKind::FIRST_LOAD, host.plugIn().serviceStatus().dataFileName.str(), force);
    }
    if (check.stopped)
        return FirstLoad::STOPPED;
    // A file that cannot be read is status 2, as without a guard; status 3 is kept for what the guard has seen.
    if (check.guarded && !check.passed && !check.examined)
        host.fail("the data file could not be checked");
    if (!check.passed) {
        complain("the first load is refused: " + joined(check.reasons) + " (ERR_HOST_GUARD_REFUSED)");
        return FirstLoad::REFUSED;
    }
    // What the guard has checked it has bound: the load reads that version of the file, or fails.
    host.start();
    guard.ended();
    DAT::NumberPortability::LoadOutcome const outcome = host.plugIn().serviceStatus().lastLoad;
    metrics.loadEnded(LoadKind::FIRST_LOAD, LoadResult::SUCCEEDED, check.seconds + outcome.duration);
    metrics.linesRejected(outcome.counts);
    return FirstLoad::DONE;
}

// The load has a thread of its own, so that a signal to stop ends it. What it throws travels, but after such a signal.
FirstLoad loadUnlessStopped(Host& host, LoadGuard& guard, Metrics& metrics, Signals& signals, bool force) {
    WakeUp const ended;
    auto loading = std::async(std::launch::async, [&] {
        std::unique_ptr<WakeUp const, void (*)(WakeUp const*)> const atEnd(&ended, [](auto* end) { end->wake(); });
        return load(host, guard, metrics, force);
    });
    if (!signals.awaitStop(ended))
        return loading.get();
    // From here on nobody asks what the load throws: a stop is a stop.
    guard.stop();
    loading.wait();
    return FirstLoad::STOPPED;
}

// Lines of the log would break the data or the configuration.
std::filesystem::path checkedLogFile(RunOptions const& options, Configuration const& configuration) {
    std::filesystem::path file = options.logFile.empty() ? configuration.of<DaemonFiles>().logFile : options.logFile;
    char const* const kept = KeptFiles{configuration.dataFile(), options.common.configuration}.nameOf(file);
    if (!file.empty() && kept != nullptr)
        throw HostError("the log file " + visible(file.native()) + " is " + kept);
    return file;
}

// Beside the module, but for tests.
std::filesystem::path frontOf(HttpSettings const& settings, Host const& host) {
    if (!settings.module.empty())
        return settings.module;
    std::filesystem::path file = host.moduleFolder() / "numberportability-http.so";
    std::error_code ignored;
    if (!std::filesystem::exists(file, ignored))
        throw HostError("[http] is configured, but the front is not installed: there is no " + visible(file.native()) +
                        " (package numberportability-http)");
    return file;
}

// Those that are meant for one front.
std::vector<PassedSocket> socketsOf(std::vector<PassedSocket> const& passed, std::string_view name) {
    std::vector<PassedSocket> sockets;
    std::copy_if(passed.begin(), passed.end(), std::back_inserter(sockets),
                 [name](PassedSocket const& each) { return each.name == name; });
    return sockets;
}

int runDaemon(RunOptions const& options) {
    // First of all: a signal during the start must find its handler.
    Signals signals;
    std::vector<PassedSocket> const passed = takePassedSockets();
    // Before the first line of the log: from here on nobody who does not read keeps the daemon waiting.
    StandardError::beOfService();
    Configuration configuration = options.common.readConfiguration();
    std::filesystem::path const logFile = checkedLogFile(options, configuration);
    LogTarget target(logFile);
    ServiceNotifier notifier;
    // Before the load: two daemons must not both work on one data file for as long as a load takes.
    std::optional<ListeningSocket> socket;
    if (std::filesystem::path const path = configuration.of<DaemonFiles>().socket; !path.empty())
        socket.emplace(path);
    bool const announceChanges = configuration.of<ChangeNotices::Settings>().announceChanges;
    HttpSettings const http = configuration.of<HttpSettings>();
    bool const watchChanges = http.isOn; // which tells of them
    bool const answersDns = configuration.of<EnumSettings>().isOn;
    std::vector<PassedSocket> const httpSockets = http.isOn ? socketsOf(passed, "http") : std::vector<PassedSocket>();
    std::vector<PassedSocket> const dnsSockets = answersDns ? socketsOf(passed, "dns") : std::vector<PassedSocket>();
    Networks networks(configuration.of<NetworkTable::Settings>().file);
    DataClock const clock(configuration);
    std::filesystem::path const dataFolder = std::filesystem::path(configuration.dataFile()).parent_path();
    auto const deltaFolders = configuration.of<DeltaFolders::Settings>().deltaFolders.value_or(std::vector{dataFolder});
    notifier.status("loading");

    std::vector<std::filesystem::path> const clientFiles = configuration.of<ClientModules::Settings>().clients;
    // Before the host, whose log tells it of every report from the first one on.
    ReportHub hub;
    Metrics metrics;
    GuardLimits const limits = configuration.of<GuardLimits>();
    Host host(std::move(configuration), options.common, LogSettings{true, options.jsonLog, &target, &hub});
    LoadGuard guard(limits, host.plugIn(), host.log());
    DataFileState dataFile(host.plugIn());
    // Before the load, which may find what a killed daemon left; who keeps deltas away is told at the start, too.
    dataFile.begin();
    FirstLoad const loaded = loadUnlessStopped(host, guard, metrics, signals, options.force);
    if (loaded == FirstLoad::REFUSED)
        return REFUSED;
    // The manager is told as at any other stop; clients were not started, and the daemon was not.
    if (loaded == FirstLoad::STOPPED) {
        notifier.stopping("stopping");
        reportOwn("INF_HOST_STOPPING", BAS::Status::NORMAL, {});
        return FINE;
    }
    // Clients find data when they start, and are stopped when the daemon has ended but before the plug-in goes.
    ClientModules const clients(clientFiles, host.plugIn());
    Daemon({host,
            options.common.configuration,
            hub,
            target,
            signals,
            notifier,
            guard,
            dataFile,
            metrics,
            networks,
            clock,
            socket ? &*socket : nullptr,
            announceChanges,
            watchChanges,
            logFile,
            deltaFolders,
            http.isOn ? frontOf(http, host) : std::filesystem::path(),
            httpSockets,
            answersDns,
            dnsSockets})
        .run();
    return FINE;
}

void declareRun(Arguments& arguments, CommonOptions& common) {
    auto const options = std::make_shared<RunOptions>();
    addConfiguration(arguments, common).required();
    auto const takeFormat = [options](std::string const& format) { options->jsonLog = format == "json"; };
    arguments.read("--log-format", "STYLE", takeFormat, "text, or json: one object a line; default: text")
        .among({"text", "json"});
    arguments.flag("--force", options->force, "Load the data file whatever the guard would say of it");
    arguments
        .add("--log-file", "FILE", options->logFile, "The file of the log; default: as configured, or standard error")
        .named();
    arguments.footer(runHelpCM);
    arguments.runs([options, &common] {
        options->common = common;
        return runDaemon(*options);
    });
}

} // namespace

Command const runCommandCM = {"run", "Serve the data as a daemon until told to stop", declareRun};

} // namespace nphost
