// nphost::Daemon: serves a plug-in until it is told to stop.
//
// Purpose: one event loop answers the clients of the control socket, obeys signals, passes what loads or lists the data
// to the lane (LoadLane.h), sends the log to whoever follows it, tells the service manager how things stand, and
// announces assignments that take effect, if it is to.
// Ownership: borrows everything but its own queues. The hub must have been the log's observer from the start.
// Threads: run by one thread, which is the loop's; the lane and the search for upcoming assignments have theirs.
// Errors: construction as of its parts; run std::bad_alloc, before its first turn and as it stops. What goes wrong
// with one request is that client's answer. What memory does not suffice for in the loop, with its reserve, is tried
// again; when it does not suffice for an answer, the client gets a shorter one or is let go.
// Complexity: that of the requests. A load never keeps the loop from its work.
#pragma once

#include "host/base/MemoryReserve.h"
#include "host/daemon/ChangeNotices.h"
#include "host/daemon/LoadedFront.h"
#include "host/daemon/PostedCommands.h"
#include "host/daemon/ServiceNotifier.h"
#include "host/daemon/Signals.h"
#include "host/fields/DataClock.h"
#include "host/module/Host.h"
#include "host/net/LineServer.h"
#include "host/service/LoadGuard.h"
#include "host/service/LoadLane.h"
#include "host/service/Metrics.h"
#include "host/service/Networks.h"
#include "host/service/ReportHub.h"
#include "host/service/Service.h"

#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string_view>

namespace nphost {

class Daemon : private LineServer::Handler {
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
        Metrics& metrics;
        Networks& networks;
        DataClock const& clock;
        ListeningSocket* socket; // null: no control socket
        bool announceChanges = false;
        bool watchChanges = false;          // the metrics are to tell when assignments take effect next
        std::filesystem::path logFile = {}; // empty: standard error
        std::vector<std::filesystem::path> deltaFolders = {};
        std::filesystem::path httpFront = {};       // the shared object; empty: there is no such front
        std::vector<PassedSocket> httpSockets = {}; // that the service manager passed for it
        bool answersDns = false;
        std::vector<PassedSocket> dnsSockets = {};
    };

    explicit Daemon(Parts const& parts);
    Daemon(Daemon const&) = delete;
    Daemon& operator=(Daemon const&) = delete;
    ~Daemon() override = default;

    // Returns when a signal has told it to stop and the control socket is gone.
    void run();

  private:
    using Client = LineServer::Client;
    static constexpr Client firstPosterCM = Client(1) << 63; // those of the line server are counted from 1

    std::optional<EventLoop::Milliseconds> patience() const;
    void step();
    void stop();
    void attempt(void (Daemon::*part)()) noexcept;
    void reloadBySignal();
    bool rereadTables() noexcept;
    void serveFronts();
    void send(Client client, std::string_view line, bool keep = false);
    bool waits(Client client) const;
    void finishJobs();
    void answer(LoadLane::Job const& job);
    void tellManager();
    void tellStopping();
    void announce();
    void feedFollowers();
    std::string statusText();

    void request(Client client, std::string_view line) override;
    RequestOutcome obey(Client client, std::string_view line);
    void noticed(LineServer::Event event) noexcept override;
    std::string refusal(std::string const& reason) override;

    // The commands of the control socket.
    using Json = nlohmann::json;
    struct Command {
        std::string_view name;
        void (Daemon::*carryOut)(Client client, Json const& request);
    };
    static Command const commandsCM[];
    void dispatch(Client client, Json const& request);
    void status(Client client, Json const& request);
    void lookup(Client client, Json const& request);
    void explain(Client client, Json const& request);
    void probes(Client client, Json const& request);
    void log(Client client, Json const& request);
    void reload(Client client, Json const& request);
    void delta(Client client, Json const& request);
    void print(Client client, Json const& request);
    void update(Client client, Json const& request);
    template <class Take>
    void take(Client client, Json const& request, Take&& command);

    Parts partsM;
    LoadedPlugIn& plugInM;
    Metrics::Cell cellM; // of the control socket
    MemoryReserve reserveM;
    LoadLane laneM;
    Service serviceM;
    std::optional<ChangeNotices> noticesM;
    PostedCommands postedM;
    std::map<Client, CommandPost::Answer> postersM; // who waits for the answer of a posted command
    Client nextPosterM = firstPosterCM;
    std::optional<LineServer> serverM;
    WakeUpSource signalsM;
    WakeUpSource newsM; // of the log, the lane and the search for what is to come
    EventLoop loopM;
    std::map<Client, std::uint64_t> followersM; // and the number of the report that each gets next
    bool reloadWantedM = false;                 // a signal's reload is not in the lane yet
    bool reloadingM = false;                    // the service manager waits for the end of a reload
    bool statusDueM = false;                    // the service manager is to be told anew
    std::optional<LoadedFront> httpM;           // the last to come, with the next, and the first to go
    std::unique_ptr<Front> dnsM;
    bool shortM = false; // memory did not suffice for all that this turn of the loop had to do
};

} // namespace nphost
