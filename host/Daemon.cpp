#include "host/Daemon.h"

#include "host/ControlProtocol.h"
#include "host/HostError.h"
#include "host/OwnReport.h"
#include "host/SameFile.h"
#include "host/ServiceAnswers.h"
#include "host/Text.h"

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <system_error>

namespace nphost {

namespace {

using Json = nlohmann::json;

// What was reported by the check of a request, and then by the request itself.
void addReports(Json& answer, LoadCheck const& check, ReportCollector const& collector) {
    Json reports = Json::array();
    for (ReportCollector const* const part : {&check.reports, &collector})
        for (LogReport const& report : part->reports())
            reports.push_back(toJson(report));
    answer["reports"] = std::move(reports);
    answer["reportsLeftOut"] = check.reports.leftOut() + collector.leftOut();
    answer["check"] = toJson(check);
}

char const* nameOf(ProbeKind kind) {
    return kind == ProbeKind::RELOAD ? "reload" : kind == ProbeKind::DELTA_LOAD ? "delta" : "print";
}

std::string textOf(Json const& request, std::string const& key) {
    auto text = request.at(key).get<std::string>();
    if (text.empty() || text.find('\0') != std::string::npos)
        throw RequestError("'" + key + "' must name a file");
    if (text.front() != '/') // the daemon's own folder means nothing to its clients
        throw RequestError("'" + key + "' must be an absolute path");
    return text;
}

void checkVersion(Json const& request) {
    if (!request.is_object())
        throw RequestError("the request is not an object");
    if (!request.contains("version") || request.at("version") != protocolVersionCM)
        throw RequestError("the protocol's version is " + std::to_string(protocolVersionCM) +
                           "; the request is of another or of none");
}

} // namespace

Daemon::Daemon(Parts const& parts)
    : partsM(parts), plugInM(parts.host.plugIn()),
      updatesM(plugInM, parts.configuration, parts.guard, parts.hub.wakeUp()),
      probesM(plugInM, parts.configuration, parts.hub, updatesM) {
    if (parts.announceChanges)
        noticesM.emplace(plugInM, parts.hub.wakeUp());
    if (parts.socket != nullptr)
        serverM.emplace(*parts.socket, static_cast<ControlServer::Handler&>(*this));
}

void Daemon::run() {
    reportOwn("INF_HOST_READY", BAS::Status::NORMAL,
              {BAS::String(partsM.socket == nullptr ? "-" : partsM.socket->path().native())});
    partsM.notifier.ready(statusText());
    if (noticesM)
        noticesM->step();
    std::vector<pollfd> polled;
    while (!partsM.signals.takeStop()) {
        wait(polled);
        partsM.signals.clear();
        partsM.hub.wakeUp().clear();
        if (serverM)
            serverM->serve(polled);
        step();
    }
    stop();
}

void Daemon::wait(std::vector<pollfd>& polled) const {
    polled.clear();
    polled.push_back({partsM.signals.descriptor(), POLLIN, 0});
    polled.push_back({partsM.hub.wakeUp().descriptor(), POLLIN, 0});
    if (serverM)
        serverM->collect(polled);
    if (poll(polled.data(), polled.size(), patience()) < 0 && errno != EINTR)
        throw HostError("the event loop cannot wait: " + std::system_category().message(errno));
}

// Milliseconds; -1 is for ever.
int Daemon::patience() const {
    constexpr int tickMilliseconds = 500; // where something may have to end for its time
    if (serverM && serverM->hasReady())
        return 0;
    bool const timed = probesM.length() > 0 || (serverM && serverM->hasTimes());
    std::optional<int> const notice = noticesM ? noticesM->patience() : std::nullopt;
    if (!timed)
        return notice.value_or(-1);
    return std::min(tickMilliseconds, notice.value_or(tickMilliseconds));
}

void Daemon::step() {
    if (partsM.signals.takeReload())
        reloadBySignal();
    finishProbes();
    finishUpdates();
    if (noticesM)
        noticesM->step();
    feedFollowers();
}

void Daemon::stop() {
    partsM.guard.stop();
    partsM.notifier.stopping("stopping");
    reportOwn("INF_HOST_STOPPING", BAS::Status::NORMAL, {});
    if (!serverM)
        return;
    feedFollowers();
    serverM->close();
}

void Daemon::reloadBySignal() {
    if (std::string const reason = partsM.log.reopen(); !reason.empty())
        reportOwn("ERR_HOST_LOG_FILE", BAS::Status::MAJOR, {BAS::String(reason)});
    partsM.notifier.reloading("reloading");
    reloadingM = true;
    if (!probesM.hasWaitingSignalRequest()) // one that has not begun will see the present file
        probesM.push({ProbeKind::RELOAD, "TRUE", 0, true, false});
}

void Daemon::finishProbes() {
    while (auto const finished = probesM.takeFinished()) {
        Json answer = {{"ok", true},
                       {"command", nameOf(finished->request.kind)},
                       {"succeeded", finished->outcome.succeeded},
                       {"seconds", finished->seconds}};
        addReports(answer, finished->check, finished->outcome.reports);
        if (serverM && finished->request.client != 0)
            serverM->send(finished->request.client, lineOf(std::move(answer)));
        if (reloadingM && !probesM.hasSignalRequest()) {
            reloadingM = false;
            partsM.notifier.ready(statusText());
        } else if (!reloadingM) {
            partsM.notifier.status(statusText());
        }
    }
}

void Daemon::finishUpdates() {
    for (UpdateRunner::Done const& done : updatesM.takeDone()) {
        Json answer = {{"ok", true},
                       {"command", "update"},
                       {"result", done.result},
                       {"handled", done.handled},
                       {"succeeded", done.result && done.handled && !done.reports.hasFailure()},
                       {"seconds", done.seconds}};
        addReports(answer, done.check, done.reports);
        if (serverM)
            serverM->send(done.client, lineOf(std::move(answer)));
        if (!reloadingM)
            partsM.notifier.status(statusText());
    }
}

void Daemon::feedFollowers() {
    if (!serverM)
        return;
    for (auto follower = followersM.begin(); follower != followersM.end();) {
        ReportHub::Recent const recent = partsM.hub.since(follower->second);
        follower->second = recent.next;
        bool present = serverM->has(follower->first);
        if (present && recent.lost > 0)
            serverM->send(follower->first, lineOf({{"lost", recent.lost}}), true);
        for (LogReport const& report : recent.reports)
            if (present)
                serverM->send(follower->first, lineOf({{"report", toJson(report)}}), true);
        present = serverM->has(follower->first);
        follower = present ? std::next(follower) : followersM.erase(follower);
    }
}

std::string Daemon::statusText() {
    DAT::NumberPortability::ServiceStatus const status = plugInM.serviceStatus();
    std::string text = std::to_string(status.records) + " records of " + std::to_string(status.numbers) +
                       " numbers, loaded " + clockTime(status.liveSince);
    if (!status.usable)
        text += "; not usable: the data file cannot be read";
    LoadGuard::Standing const standing = partsM.guard.standing();
    if (standing.isRefused(status.loads))
        text += std::string("; the last ") + nameOf(standing.lastRefusal->kind) + " was refused";
    return text;
}

void Daemon::request(Client client, std::string_view line) {
    try {
        Json const request = Json::parse(line);
        checkVersion(request);
        dispatch(client, request);
    } catch (RequestError const& error) {
        serverM->send(client, errorLine(error.what()));
    } catch (Json::exception const& error) {
        serverM->send(client, errorLine("the request cannot be understood: " + shortened(error.what())));
    } catch (std::bad_alloc const&) {
        serverM->send(client, errorLine("out of memory"));
    } catch (std::exception const& error) {
        serverM->send(client, errorLine(shortened(error.what())));
    }
}

void Daemon::dispatch(Client client, Json const& request) {
    auto const command = request.at("command").get<std::string>();
    if (command == "status")
        serverM->send(client, lineOf(answerStatus(plugInM, partsM.guard)));
    else if (command == "lookup")
        serverM->send(client, lineOf(answerLookup(plugInM, request)));
    else if (command == "explain")
        serverM->send(client, lineOf(answerExplain(plugInM, request)));
    else if (command == "reload")
        probe(client, request, ProbeKind::RELOAD, request.value("reuse", true) ? "TRUE" : "FALSE");
    else if (command == "delta")
        probe(client, request, ProbeKind::DELTA_LOAD, textOf(request, "file"));
    else if (command == "print")
        print(client, request);
    else if (command == "update")
        update(client, request);
    else if (command == "probes")
        listProbes(client);
    else if (command == "log")
        showLog(client, request);
    else
        throw RequestError("there is no command '" + shortened(command) + "'");
}

void Daemon::probe(Client client, Json const& request, ProbeKind kind, std::string value) {
    bool const wait = request.value("wait", true);
    if (probesM.isFull())
        throw RequestError("too many requests are waiting");
    probesM.push({kind, std::move(value), wait ? client : 0, false, request.value("force", false)});
    if (!wait)
        serverM->send(client, lineOf({{"ok", true}, {"queued", probesM.length()}}));
}

void Daemon::print(Client client, Json const& request) {
    bool const toFile = request.contains("file");
    if (toFile)
        refuseKeptFile(textOf(request, "file"));
    probe(client, request, ProbeKind::PRINT, toFile ? textOf(request, "file") : "NULL");
}

// A listing with its heading would be no data file any more.
void Daemon::refuseKeptFile(std::string const& target) {
    KeptFiles const files{plugInM.serviceStatus().dataFileName.str(), partsM.configuration};
    if (char const* const kept = files.nameOf(target))
        throw RequestError("the output " + target + " is " + kept);
}

void Daemon::update(Client client, Json const& request) {
    UpdateRunner::Keys keys;
    Json const& given = request.at("keys");
    if (!given.is_object())
        throw RequestError("'keys' must be an object");
    for (auto const& [key, value] : given.items()) {
        keys.emplace_back(key, value.get<std::string>());
        bool const print = key == "PrintData" && !keys.back().second.empty();
        if (print || key == "AdditionalNumPortData")
            textOf(given, key);
        if (print)
            refuseKeptFile(keys.back().second);
    }
    if (!updatesM.push(client, std::move(keys), request.value("force", false)))
        throw RequestError("too many updates are waiting");
}

void Daemon::listProbes(Client client) {
    Json probes = Json::array();
    for (BAS::InstrumentationProbeAttribute const* const probe : plugInM.probes())
        probes.push_back(
            {{"name", asUtf8(probe->name().view())}, {"description", asUtf8(probe->description().view())}});
    serverM->send(client, lineOf({{"ok", true}, {"probes", std::move(probes)}}));
}

void Daemon::showLog(Client client, Json const& request) {
    bool const follow = request.value("follow", false);
    ReportHub::Recent const recent = partsM.hub.since(partsM.hub.last(recentReportsCM));
    Json reports = Json::array();
    for (LogReport const& report : recent.reports)
        reports.push_back(toJson(report));
    serverM->send(client, lineOf({{"ok", true}, {"reports", std::move(reports)}}), follow);
    if (follow)
        followersM[client] = recent.next;
}

} // namespace nphost
