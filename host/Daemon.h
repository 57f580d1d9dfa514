// nphost::Daemon: serves a plug-in until it is told to stop.
//
// Purpose: one event loop answers the clients of the control socket, obeys signals, passes what loads or lists the data
// to the lane (LoadLane.h), sends the log to whoever follows it, tells the service manager how things stand, and
// announces assignments that take effect, if it is to.
// Ownership: borrows everything but its own queues. The hub must have been the log's observer from the start.
// Threads: run by one thread, which is the loop's; the lane and the search for upcoming assignments have theirs.
// Errors: construction as of its parts; run throws HostError when the system refuses to wait. What goes wrong
// with one request is that client's answer. What memory does not suffice for in the loop, with its reserve, is tried again; when it does
// not suffice for an answer, the client gets a shorter one or is let go.
// Complexity: that of the requests. A load never keeps the loop from its work.
#pragma once

#include "host/ChangeNotices.h"
#include "host/ControlServer.h"
#include "host/Host.h"
#include "host/LoadGuard.h"
#include "host/LoadLane.h"
#include "host/MemoryReserve.h"
#include "host/ReportHub.h"
#include "host/ServiceNotifier.h"
#include "host/Signals.h"

#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string_view>

namespace nphost {

class Daemon : private ControlServer::Handler {
  public:
    struct Parts {
        Host& host;
        std::filesystem::path configuration; // its file
        ReportHub& hub;
        LogTarget& log;
        Signals& signals;
        ServiceNotifier& notifier;
        LoadGuard& guard;
        DataFileState& dataFile;
        ListeningSocket* socket; // null: no control socket
        bool announceChanges = false;
        std::filesystem::path logFile = {}; // empty: standard error
        std::vector<std::filesystem::path> deltaFolders = {};
    };

    explicit Daemon(Parts const& parts);
    Daemon(Daemon const&) = delete;
    Daemon& operator=(Daemon const&) = delete;
    ~Daemon() override = default;

    // Returns when a signal has told it to stop and the control socket is gone.
    void run();

  private:
    using Client = ControlServer::Client;

    void wait(std::vector<pollfd>& polled) const;
    static void waitPoorly(std::vector<pollfd>& polled);
    int patience() const;
    void step();
    void stop();
    void attempt(void (Daemon::*part)()) noexcept;
    void reloadBySignal();
    void finishJobs();
    void answer(LoadLane::Job const& job);
    void tellManager();
    void tellStopping();
    void announce();
    void feedFollowers();
    std::string statusText();

    void request(Client client, std::string_view line) override;
    void dispatch(Client client, nlohmann::json const& request);
    void load(Client client, nlohmann::json const& request, LoadLane::Kind kind, std::string value);
    void delta(Client client, nlohmann::json const& request);
    void print(Client client, nlohmann::json const& request);
    void update(Client client, nlohmann::json const& request);
    void listProbes(Client client);
    void showLog(Client client, nlohmann::json const& request);
    void refuseKeptFile(std::string const& target);
    void refuseDelta(std::string const& file);

    Parts partsM;
    LoadedPlugIn& plugInM;
    MemoryReserve reserveM;
    LoadLane laneM;
    std::optional<ChangeNotices> noticesM;
    std::optional<ControlServer> serverM;
    std::map<Client, std::uint64_t> followersM; // and the number of the report that each gets next
    bool reloadWantedM = false;                 // a signal's reload is not in the lane yet
    bool reloadingM = false;                    // the service manager waits for the end of a reload
    bool statusDueM = false;                    // the service manager is to be told anew
    bool shortM = false;                        // memory did not suffice for all that this turn of the loop had to do
};

} // namespace nphost
