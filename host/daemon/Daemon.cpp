#include "host/daemon/Daemon.h"

#include "host/base/Instant.h"
#include "host/base/Text.h"
#include "host/daemon/ControlAnswers.h"
#include "host/daemon/ControlProtocol.h"
#include "host/dns/Server.h"
#include "host/fields/Numbers.h"
#include "host/log/OwnReport.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>

namespace nphost {

namespace {

using Json = nlohmann::json;

// The defaults, which docs/operations.md names.
constexpr LineServer::Limits limitsCM;

// The instant that a question asks for; now where it names none.
BAS::DateTime instantOf(Json const& request, DataClock const& clock) {
    if (!request.contains("at"))
        return clock.now();
    auto const text = valueOf<std::string>(request, "at");
    BAS::DateTime const at = clock.read(text);
    if (!at.isValid())
        throw QuestionError("'" + shortened(text) + "' is not a valid instant");
    return at;
}

std::optional<unsigned int> methodOf(Json const& request) {
    if (!request.contains("method"))
        return std::nullopt;
    auto const name = valueOf<std::string>(request, "method");
    std::optional<unsigned int> const method = searchMethodOf(name);
    if (!method)
        throw QuestionError("the method '" + shortened(name) + "' is not best, exact or shortest");
    return method;
}

// The bound is the manual's; ctl stays well below it.
std::vector<std::string> numbersOf(Json const& request) {
    auto const numbers = request.find("numbers");
    if (numbers == request.end() || !numbers->is_array() || numbers->empty() || numbers->size() > mostLookupNumbersCM)
        throw QuestionError("'numbers' must be a list of 1 to " + std::to_string(mostLookupNumbersCM) + " numbers");
    std::vector<std::string> texts;
    for (Json const& number : *numbers) {
        if (!number.is_string())
            throw QuestionError("each of 'numbers' must be a text");
        texts.push_back(number.get<std::string>());
    }
    return texts;
}

// Asked first: of another version's request nothing else can be trusted.
void checkVersion(Json const& request) {
    if (!request.is_object())
        throw QuestionError("the request is not an object");
    if (!request.contains("version") || request.at("version") != protocolVersionCM)
        throw QuestionError("the protocol's version is " + std::to_string(protocolVersionCM) +
                            "; the request is of another or of none");
}

} // namespace

Daemon::Daemon(Parts const& parts)
    : partsM(parts), plugInM(parts.host.plugIn()), cellM(parts.metrics, FrontKind::CONTROL),
      laneM(plugInM,
            {plugInM.serviceStatus().dataFileName.str(), parts.configuration, parts.logFile,
             parts.socket == nullptr ? std::filesystem::path() : parts.socket->path(), true},
            DeltaFolders(parts.deltaFolders), parts.guard, parts.dataFile, parts.metrics, parts.hub.wakeUp(),
            [this] { return rereadTables(); }),
      serviceM({plugInM, parts.host.numbers(), parts.guard, parts.dataFile, parts.host.log(), laneM}),
      postedM(parts.hub.wakeUp()), signalsM(parts.signals.wakeUp()), newsM(parts.hub.wakeUp()) {
    loopM.add(signalsM);
    // One wake-up for log, lane and announcements: a turn looks at all of them anyway.
    loopM.add(newsM);
    if (parts.announceChanges || parts.watchChanges)
        noticesM.emplace(plugInM, parts.hub.wakeUp(), parts.announceChanges,
                         ChangeNotices::Clocks{[&clock = parts.clock] { return clock.now(); },
                                               [&clock = parts.clock](BAS::DateTime utc) { return clock.at(utc); }});
    if (parts.socket != nullptr)
        loopM.add(serverM.emplace(*parts.socket, static_cast<LineServer::Handler&>(*this), limitsCM));
    // It answers at once, but for commands, which wait for the loop.
    auto const partsOf = [this](std::vector<PassedSocket> const& sockets) {
        return FrontParts{partsM.host.configuration(),
                          partsM.deltaFolders,
                          serviceM,
                          plugInM,
                          partsM.host.numbers(),
                          partsM.networks,
                          partsM.clock,
                          partsM.metrics,
                          postedM,
                          sockets,
                          NP_VERSION};
    };
    if (parts.answersDns)
        dnsM = std::make_unique<DnsFront>(partsOf(partsM.dnsSockets));
    if (!parts.httpFront.empty())
        httpM.emplace(parts.httpFront, partsOf(partsM.httpSockets));
}

// The manager hears READY only when the loop is about to turn: from then on signals and clients are served.
void Daemon::run() {
    reportOwn("INF_HOST_READY", BAS::Status::NORMAL,
              {BAS::String(partsM.socket == nullptr ? "-" : partsM.socket->path().native())});
    partsM.notifier.ready(statusText());
    announce();
    while (!partsM.signals.takeStop()) {
        step(); // signals may have come before
        loopM.turn(patience());
    }
    stop();
}

// Until something of the daemon's own is due.
std::optional<EventLoop::Milliseconds> Daemon::patience() const {
    constexpr EventLoop::Milliseconds again{500}; // where memory did not suffice
    std::optional<EventLoop::Milliseconds> notice;
    if (std::optional<int> const due = noticesM ? noticesM->patience() : std::nullopt)
        notice.emplace(*due);
    return shortM ? std::min(again, notice.value_or(again)) : notice;
}

void Daemon::step() {
    shortM = false;
    // In this order: the signal must be taken whether an older one is still to be obeyed or not.
    reloadWantedM = partsM.signals.takeReload() || reloadWantedM;
    // Those who tell come after those who do: the manager and the followers hear in the same turn what jobs have
    // become.
    for (auto const part : {&Daemon::reloadBySignal, &Daemon::serveFronts, &Daemon::finishJobs, &Daemon::tellManager,
                            &Daemon::announce, &Daemon::feedFollowers})
        attempt(part);
}

// Each part leaves undone what memory did not suffice for, and finds it again at its next turn.
void Daemon::attempt(void (Daemon::*part)()) noexcept {
    try {
        (this->*part)();
    } catch (std::exception const&) {
        shortM = true;
    }
}

// The manager is told first, since the lane may take its time to end. Whoever waits for the job under way gets its
// outcome before the connections close; followers get the last reports.
void Daemon::stop() {
    attempt(&Daemon::tellStopping);
    postedM.close();
    if (httpM)
        (*httpM)->beginStop();
    if (dnsM)
        dnsM->beginStop();
    laneM.stop();
    attempt(&Daemon::finishJobs);
    if (httpM)
        (*httpM)->stop();
    dnsM.reset();
    // Answers are the front's code, which goes with it.
    postersM.clear();
    while (!postedM.takeOne().empty()) {
    }
    httpM.reset();
    if (!serverM)
        return;
    attempt(&Daemon::feedFollowers);
    serverM->close();
}

void Daemon::tellStopping() {
    partsM.notifier.stopping("stopping");
    reportOwn("INF_HOST_STOPPING", BAS::Status::NORMAL, {});
}

// The log first: a rotation ends with this signal. Should memory run out on the way, all of it is done again at the
// next turn, and bears that.
void Daemon::reloadBySignal() {
    if (!reloadWantedM)
        return;
    if (std::string const reason = partsM.log.reopen(); !reason.empty())
        reportOwn("ERR_HOST_LOG_FILE", BAS::Status::MAJOR, {BAS::String(reason)});
    partsM.notifier.reloading("reloading");
    reloadingM = true;
    if (!laneM.hasWaitingSignalRequest()) // one that has not begun will see the present file
        laneM.push({LoadLane::RELOAD, "TRUE", {}, 0, true, false});
    reloadWantedM = false;
}

// What goes with the data, and may be changed with them. The lane's thread calls: nobody waits for these files.
bool Daemon::rereadTables() noexcept {
    bool const table = partsM.networks.reread();
    return (!httpM || (*httpM)->reread()) && table;
}

// The control protocol's commands, whoever sends them.
void Daemon::serveFronts() {
    // A few a turn: others wait for the loop, too.
    constexpr int mostAtOnce = 16;
    for (int i = 0; i < mostAtOnce; ++i) {
        PostedCommands::Commands const posted = postedM.takeOne();
        if (posted.empty())
            return;
        Client const client = nextPosterM++;
        postersM.emplace(client, posted.front().answer);
        request(client, posted.front().request);
    }
    partsM.hub.wakeUp().wake(); // for what may still wait
}

bool Daemon::waits(Client client) const {
    // 0 is nobody: a signal's request, or that of a client that does not wait.
    return client >= firstPosterCM ? postersM.contains(client) : serverM && client != 0;
}

void Daemon::send(Client client, std::string_view line, bool keep) {
    if (client < firstPosterCM)
        return serverM->send(client, line, keep);
    auto const poster = postersM.extract(client);
    if (!poster.empty())
        poster.mapped()(std::string(line));
}

// Taken out as a whole, and without allocation; a job whose client has gone is dropped here.
void Daemon::finishJobs() {
    for (LoadLane::Job const& job : laneM.takeFinished()) {
        statusDueM = true;
        if (waits(job.request.client))
            answer(job);
    }
}

void Daemon::answer(LoadLane::Job const& job) {
    try {
        if (reserveM.isWhole())
            return send(job.request.client, lineOf(toJson(job)));
    } catch (std::exception const&) { // NOLINT(bugprone-empty-catch): the short one it is
    }
    // Whoever waits gets an answer in any case, if one without reports.
    ShortLine line;
    send(job.request.client, shortLine(job, line));
}

// While a reload of a signal's is to come or under way, the service manager waits for its end.
void Daemon::tellManager() {
    if (!statusDueM || reloadWantedM || (reloadingM && laneM.hasSignalRequest()))
        return;
    std::string const text = statusText();
    reloadingM ? partsM.notifier.ready(text) : partsM.notifier.status(text);
    reloadingM = false;
    statusDueM = false;
}

void Daemon::announce() {
    if (!noticesM)
        return;
    noticesM->step();
    std::optional<BAS::DateTime> const next = noticesM->next();
    partsM.metrics.setNextChange(next ? std::optional(partsM.clock.toUtc(*next)) : std::nullopt);
}

void Daemon::feedFollowers() {
    shortM = shortM || !reserveM.isWhole();
    if (!serverM || shortM)
        return;
    for (auto follower = followersM.begin(); follower != followersM.end();) {
        ReportHub::Recent const recent = partsM.hub.since(follower->second);
        bool const present = serverM->has(follower->first);
        if (present && recent.lost > 0)
            send(follower->first, lineOf({{"lost", recent.lost}}), true);
        // From here on it counts what was sent: where memory runs out, the next turn goes on from there and repeats
        // nothing.
        follower->second = recent.next - recent.reports.size();
        for (LogReport const& report : recent.reports) {
            if (present)
                send(follower->first, lineOf({{"report", toJson(report)}}), true);
            ++follower->second;
        }
        follower = serverM->has(follower->first) ? std::next(follower) : followersM.erase(follower);
    }
}

// For people, in one line of the service manager's status: what is served, and what is wrong with it, if anything is.
std::string Daemon::statusText() {
    DAT::NumberPortability::ServiceStatus const status = plugInM.serviceStatus();
    std::string text = std::to_string(status.records) + " records of " + std::to_string(status.numbers) +
                       " numbers, loaded " + clockTime(status.liveSince);
    if (!status.usable)
        text += "; not usable: the data file cannot be read";
    if (status.unsaved)
        text += "; records of a delta are not in the data file";
    LoadGuard::Standing const standing = partsM.guard.standing();
    if (standing.isRefused(status.loads))
        text += std::string("; the last ") + nameOf(standing.lastRefusal->kind) + " was refused";
    return text;
}

// What a load takes is counted with the loads: here it is the time until the request is answered or taken in.
void Daemon::request(Client client, std::string_view line) {
    auto const begin = std::chrono::steady_clock::now();
    RequestOutcome const outcome = obey(client, line);
    cellM.requestEnded(outcome, std::chrono::steady_clock::now() - begin);
}

RequestOutcome Daemon::obey(Client client, std::string_view line) {
    auto const refuse = [&](std::string const& answer) {
        send(client, answer);
        return RequestOutcome::REFUSED;
    };
    // The JSON library must not run out of memory while it frees a value (MemoryReserve.h): so nothing is parsed.
    if (!reserveM.isWhole()) {
        send(client, outOfMemoryLineCM);
        return RequestOutcome::FAILED;
    }
    try {
        // The parser has no recursion, so a line of brackets takes no stack; copies have (see update).
        Json const request = Json::parse(line);
        checkVersion(request);
        dispatch(client, request);
        return RequestOutcome::ANSWERED;
    } catch (AnswerTooLong const& error) {
        return refuse(errorLine(error.what(), true));
    } catch (QuestionError const& error) {
        return refuse(errorLine(error.what()));
    } catch (Json::exception const& error) {
        return refuse(errorLine("the request cannot be understood: " + shortened(error.what())));
    } catch (std::bad_alloc const&) {
        send(client, outOfMemoryLineCM);
    } catch (std::exception const& error) {
        send(client, errorLine(shortened(error.what())));
    }
    return RequestOutcome::FAILED;
}

void Daemon::noticed(LineServer::Event event) noexcept {
    switch (event) {
    case LineServer::Event::OPENED:
        return cellM.connectionOpened();
    case LineServer::Event::CLOSED:
        return cellM.connectionClosed();
    case LineServer::Event::TURNED_AWAY:
        return cellM.connectionRefused(ConnectionRefusal::TOO_MANY);
    case LineServer::Event::SLOW_REQUEST:
        return cellM.connectionDropped(ConnectionDrop::SLOW_REQUEST);
    case LineServer::Event::SLOW_READER:
        return cellM.connectionDropped(ConnectionDrop::SLOW_READER);
    }
}

std::string Daemon::refusal(std::string const& reason) {
    return errorLine(reason);
}

Daemon::Command const Daemon::commandsCM[] = {
    {"status", &Daemon::status}, {"lookup", &Daemon::lookup}, {"explain", &Daemon::explain},
    {"probes", &Daemon::probes}, {"log", &Daemon::log},       {"reload", &Daemon::reload},
    {"delta", &Daemon::delta},   {"print", &Daemon::print},   {"update", &Daemon::update},
};

void Daemon::dispatch(Client client, Json const& request) {
    auto const name = valueOf<std::string>(request, "command");
    auto const* const command = std::find_if(std::begin(commandsCM), std::end(commandsCM),
                                             [&name](Command const& each) { return each.name == name; });
    if (command == std::end(commandsCM))
        throw QuestionError("there is no command '" + shortened(name) + "'");
    (this->*command->carryOut)(client, request);
}

void Daemon::status(Client client, Json const& /*request*/) {
    send(client, lineOf(toJson(serviceM.standing(), partsM.networks.standing())));
}

void Daemon::lookup(Client client, Json const& request) {
    std::vector<std::string> numbers = numbersOf(request);
    LookUpQuestion const question = {std::move(numbers), instantOf(request, partsM.clock), methodOf(request),
                                     valueOf(request, "normalise", false)};
    send(client, lineOf(answerLookup(serviceM, question, partsM.networks.current().get(), cellM)));
}

void Daemon::explain(Client client, Json const& request) {
    auto const number = valueOf<std::string>(request, "number");
    BAS::DateTime const at = instantOf(request, partsM.clock);
    Explained const explained = serviceM.explain(number, at, valueOf(request, "normalise", false));
    send(client, lineOf(toJson(explained, partsM.networks.current().get())));
}

void Daemon::probes(Client client, Json const& /*request*/) {
    Json probes = Json::array();
    for (BAS::InstrumentationProbeAttribute const* const probe : plugInM.probes())
        probes.push_back(
            {{"name", asUtf8(probe->name().view())}, {"description", asUtf8(probe->description().view())}});
    send(client, lineOf({{"ok", true}, {"probes", std::move(probes)}}));
}

void Daemon::log(Client client, Json const& request) {
    bool const follow = valueOf(request, "follow", false);
    ReportHub::Recent const recent = partsM.hub.since(partsM.hub.last(recentReportsCM));
    Json reports = Json::array();
    for (LogReport const& report : recent.reports)
        reports.push_back(toJson(report));
    std::string const line = lineOf({{"ok", true}, {"reports", std::move(reports)}});
    // Before the answer, since it may fail for want of memory. The number goes with the reports that are sent: none is
    // missed or sent twice.
    if (follow)
        followersM[client] = recent.next;
    send(client, line, follow);
}

// Who waits is answered when the job has ended (finishJobs), else now. Both keys are looked at in every command: one of
// another type is refused, also where it says nothing.
template <class Take>
void Daemon::take(Client client, Json const& request, Take&& command) {
    bool const wait = valueOf(request, "wait", true);
    bool const force = valueOf(request, "force", false);
    // Made before, so that memory cannot run out between taking the request and saying so.
    std::string const taken = wait ? std::string() : lineOf({{"ok", true}, {"queued", serviceM.waiting() + 1}});
    command(wait ? client : 0, force);
    if (!wait)
        send(client, taken);
}

void Daemon::reload(Client client, Json const& request) {
    bool const reuse = valueOf(request, "reuse", true);
    take(client, request, [&](Service::Waiter waiter, bool force) { serviceM.reload(reuse, force, waiter); });
}

void Daemon::delta(Client client, Json const& request) {
    auto file = valueOf<std::string>(request, "file");
    take(client, request, [&](Service::Waiter waiter, bool force) { serviceM.delta(std::move(file), force, waiter); });
}

void Daemon::print(Client client, Json const& request) {
    // Without one it is the daemon's standard output.
    std::optional<std::string> target;
    if (request.contains("file"))
        target = valueOf<std::string>(request, "file");
    take(client, request, [&](Service::Waiter waiter, bool /*force*/) { serviceM.print(std::move(target), waiter); });
}

void Daemon::update(Client client, Json const& request) {
    auto const found = request.find("keys"); // not copied: a copy of what is nested deeply takes all of the stack
    if (found == request.end() || !found->is_object())
        throw QuestionError("'keys' must be an object");
    Json const& given = *found;
    LoadLane::Keys keys;
    for (auto const& [key, value] : given.items()) {
        Service::checkUpdateKey(key); // before its value
        keys.emplace_back(key, valueOf<std::string>(given, key));
    }
    // An update has no "wait": its answer is what the plug-in says of it.
    serviceM.update(std::move(keys), valueOf(request, "force", false), client);
}

} // namespace nphost
