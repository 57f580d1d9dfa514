// nphost::Daemon: serves a plug-in until it is told to stop.
//
// Purpose: one event loop answers the clients of the control socket, obeys signals, passes requests to the plug-in's
// probes and updates to their thread, sends the log to whoever follows it, tells the service manager how things stand,
// and announces assignments that take effect, if it is to.
// Ownership: borrows everything but its own queues. The hub must have been the log's observer from the start.
// Threads: run by one thread, which is the loop's; updates and the search for upcoming assignments have theirs.
// Errors: construction as of its parts; run throws HostError when the system refuses to wait; std::bad_alloc. What goes
// wrong with one request is that client's answer.
// Complexity: that of the requests. A load never keeps the loop from its work.
#pragma once

#include "host/ChangeNotices.h"
#include "host/ControlServer.h"
#include "host/Host.h"
#include "host/LoadGuard.h"
#include "host/ProbeQueue.h"
#include "host/ReportHub.h"
#include "host/ServiceNotifier.h"
#include "host/Signals.h"
#include "host/UpdateRunner.h"

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
        ListeningSocket* socket; // null: no control socket
        bool announceChanges = false;
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
    int patience() const;
    void step();
    void stop();
    void reloadBySignal();
    void finishProbes();
    void finishUpdates();
    void feedFollowers();
    std::string statusText();

    void request(Client client, std::string_view line) override;
    void dispatch(Client client, nlohmann::json const& request);
    void probe(Client client, nlohmann::json const& request, ProbeKind kind, std::string value);
    void print(Client client, nlohmann::json const& request);
    void update(Client client, nlohmann::json const& request);
    void listProbes(Client client);
    void showLog(Client client, nlohmann::json const& request);
    void refuseKeptFile(std::string const& target);

    Parts partsM;
    LoadedPlugIn& plugInM;
    UpdateRunner updatesM;
    std::optional<ChangeNotices> noticesM;
    ProbeQueue probesM;
    std::optional<ControlServer> serverM;
    std::map<Client, std::uint64_t> followersM; // and the number of the report that each gets next
    bool reloadingM = false;                    // the service manager waits for the end of a reload
};

} // namespace nphost
