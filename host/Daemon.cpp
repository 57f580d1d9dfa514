#include "host/Daemon.h"

#include "host/ControlProtocol.h"
#include "host/OwnReport.h"
#include "host/ServiceAnswers.h"
#include "host/Text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace nphost {

namespace {

using Json = nlohmann::json;

// With what was reported by the check of a request, and then by the request itself.
Json toJson(LoadLane::Job const& job) {
    Json reports = Json::array();
    for (ReportCollector const* const part : {&job.check.reports, &job.reports})
        for (LogReport const& report : part->reports())
            reports.push_back(toJson(report));
    Json answer = {{"ok", true},
                   {"command", nameOf(job.request.kind)},
                   {"succeeded", job.succeeded},
                   {"seconds", job.seconds},
                   {"reports", std::move(reports)},
                   {"reportsLeftOut", job.check.reports.leftOut() + job.reports.leftOut()},
                   {"check", toJson(job.check)}};
    if (job.request.kind == LoadLane::UPDATE) {
        answer["result"] = job.result;
        answer["handled"] = job.handled;
    }
    if (job.isDelta) {
        answer["added"] = job.added;
        answer["known"] = job.known;
    }
    return answer;
}

// The same without what memory does not suffice for.
using ShortLine = std::array<char, 256>;
std::string_view shortLine(LoadLane::Job const& job, ShortLine& line) {
    auto const text = [](bool value) { return value ? "true" : "false"; };
    bool const isUpdate = job.request.kind == LoadLane::UPDATE;
    int const length = std::snprintf(
        line.data(), line.size(),
        "{\"check\":null,\"command\":\"%s\",%s%s%s%s\"ok\":true,\"reports\":[],\"reportsLeftOut\":%zu,\"seconds\":%.6f,"
        "\"succeeded\":%s,\"version\":%d}\n",
        nameOf(job.request.kind), isUpdate ? "\"handled\":" : "", isUpdate ? text(job.handled) : "",
        isUpdate ? ",\"result\":" : "", isUpdate ? (job.result ? "true," : "false,") : "",
        job.check.reports.reports().size() + job.check.reports.leftOut() + job.reports.reports().size() +
            job.reports.leftOut(),
        job.seconds, text(job.succeeded), protocolVersionCM);
    return {line.data(), static_cast<std::size_t>(length)};
}

std::string textOf(Json const& request, std::string const& key) {
    auto text = valueOf<std::string>(request, key);
    if (text.empty() || text.find('\0') != std::string::npos)
        throw RequestError("'" + key + "' must name a file");
    if (text.front() != '/') // the daemon's own folder means nothing to its clients
        throw RequestError("'" + key + "' must be an absolute path");
    return text;
}

constexpr std::array<std::string_view, 4> updateKeysCM = {"Reload", "ReuseOnFailure", "AdditionalNumPortData",
                                                          "PrintData"};

std::string updateKeys() {
    std::string names;
    for (std::string_view const key : updateKeysCM)
        names.append(names.empty() ? "" : ", ").append(key);
    return names;
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
      laneM(plugInM,
            {plugInM.serviceStatus().dataFileName.str(), parts.configuration, parts.logFile,
             parts.socket == nullptr ? std::filesystem::path() : parts.socket->path(), true},
            DeltaFolders(parts.deltaFolders), parts.guard, parts.dataFile, parts.hub.wakeUp()) {
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
    polled.reserve(2 + ControlServer::mostPolledCM);
    while (!partsM.signals.takeStop()) {
        step(); // signals may have come before
        wait(polled);
        partsM.signals.clear();
        partsM.hub.wakeUp().clear();
        if (serverM)
            serverM->serve(polled);
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
        waitPoorly(polled);
}

// When the limit of descriptors was lowered below what is open, or the system is short of memory: the loads, the signals
// and the clients must go on. Nothing blocks that is taken for ready.
void Daemon::waitPoorly(std::vector<pollfd>& polled) {
    constexpr int milliseconds = 100;
    poll(nullptr, 0, milliseconds);
    for (pollfd& entry : polled)
        entry.revents = entry.events;
}

// Milliseconds; -1 is for ever.
int Daemon::patience() const {
    constexpr int tickMilliseconds = 500; // where something may have to end for its time
    if (serverM && serverM->hasReady())
        return 0;
    bool const timed = shortM || (serverM && serverM->hasTimes());
    std::optional<int> const notice = noticesM ? noticesM->patience() : std::nullopt;
    if (!timed)
        return notice.value_or(-1);
    return std::min(tickMilliseconds, notice.value_or(tickMilliseconds));
}

void Daemon::step() {
    shortM = false;
    reloadWantedM = partsM.signals.takeReload() || reloadWantedM;
    for (auto const part : {&Daemon::reloadBySignal, &Daemon::finishJobs, &Daemon::tellManager, &Daemon::announce,
                            &Daemon::feedFollowers})
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

void Daemon::stop() {
    attempt(&Daemon::tellStopping);
    laneM.stop();
    attempt(&Daemon::finishJobs);
    if (!serverM)
        return;
    attempt(&Daemon::feedFollowers);
    serverM->close();
}

void Daemon::tellStopping() {
    partsM.notifier.stopping("stopping");
    reportOwn("INF_HOST_STOPPING", BAS::Status::NORMAL, {});
}

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

void Daemon::finishJobs() {
    for (LoadLane::Job const& job : laneM.takeFinished()) {
        statusDueM = true;
        if (serverM && job.request.client != 0)
            answer(job);
    }
}

void Daemon::answer(LoadLane::Job const& job) {
    try {
        if (reserveM.isWhole())
            return serverM->send(job.request.client, lineOf(toJson(job)));
    } catch (std::exception const&) { // NOLINT(bugprone-empty-catch): the short one it is
    }
    ShortLine line;
    serverM->send(job.request.client, shortLine(job, line));
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
    if (noticesM)
        noticesM->step();
}

void Daemon::feedFollowers() {
    shortM = shortM || !reserveM.isWhole();
    if (!serverM || shortM)
        return;
    for (auto follower = followersM.begin(); follower != followersM.end();) {
        ReportHub::Recent const recent = partsM.hub.since(follower->second);
        bool const present = serverM->has(follower->first);
        if (present && recent.lost > 0)
            serverM->send(follower->first, lineOf({{"lost", recent.lost}}), true);
        follower->second = recent.next - recent.reports.size();
        for (LogReport const& report : recent.reports) {
            if (present)
                serverM->send(follower->first, lineOf({{"report", toJson(report)}}), true);
            ++follower->second;
        }
        follower = serverM->has(follower->first) ? std::next(follower) : followersM.erase(follower);
    }
}

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

void Daemon::request(Client client, std::string_view line) {
    if (!reserveM.isWhole())
        return serverM->send(client, outOfMemoryLineCM);
    try {
        Json const request = Json::parse(line);
        checkVersion(request);
        dispatch(client, request);
    } catch (AnswerTooLong const& error) {
        serverM->send(client, errorLine(error.what(), true));
    } catch (RequestError const& error) {
        serverM->send(client, errorLine(error.what()));
    } catch (Json::exception const& error) {
        serverM->send(client, errorLine("the request cannot be understood: " + shortened(error.what())));
    } catch (std::bad_alloc const&) {
        serverM->send(client, outOfMemoryLineCM);
    } catch (std::exception const& error) {
        serverM->send(client, errorLine(shortened(error.what())));
    }
}

void Daemon::dispatch(Client client, Json const& request) {
    auto const command = valueOf<std::string>(request, "command");
    if (command == "status")
        serverM->send(client, lineOf(answerStatus(plugInM, partsM.guard, partsM.dataFile, partsM.host.log())));
    else if (command == "lookup")
        serverM->send(client, lineOf(answerLookup(plugInM, partsM.host.numbers(), request)));
    else if (command == "explain")
        serverM->send(client, lineOf(answerExplain(plugInM, partsM.host.numbers(), request)));
    else if (command == "reload")
        load(client, request, LoadLane::RELOAD, valueOf(request, "reuse", true) ? "TRUE" : "FALSE");
    else if (command == "delta")
        delta(client, request);
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

void Daemon::load(Client client, Json const& request, LoadLane::Kind kind, std::string value) {
    bool const wait = valueOf(request, "wait", true);
    // Made before, so that memory cannot run out between taking the request and saying so.
    std::string const taken = wait ? std::string() : lineOf({{"ok", true}, {"queued", laneM.length() + 1}});
    if (!laneM.push({kind, std::move(value), {}, wait ? client : 0, false, valueOf(request, "force", false)}))
        throw RequestError("too many requests are waiting");
    if (!wait)
        serverM->send(client, taken);
}

void Daemon::delta(Client client, Json const& request) {
    std::string file = textOf(request, "file");
    refuseDelta(file);
    load(client, request, LoadLane::DELTA_LOAD, std::move(file));
}

// Its rejected lines would be in the answer.
void Daemon::refuseDelta(std::string const& file) {
    if (std::string const reason = laneM.deltaFolders().find(file).refusal; !reason.empty())
        throw RequestError(reason);
}

void Daemon::print(Client client, Json const& request) {
    bool const toFile = request.contains("file");
    if (toFile)
        refuseKeptFile(textOf(request, "file"));
    load(client, request, LoadLane::PRINT, toFile ? textOf(request, "file") : "NULL");
}

// A listing with its heading would be no data file any more.
void Daemon::refuseKeptFile(std::string const& target) {
    if (char const* const kept = laneM.keptFiles().nameOf(target))
        throw RequestError("the output " + target + " is " + kept);
}

void Daemon::update(Client client, Json const& request) {
    LoadLane::Keys keys;
    auto const found = request.find("keys"); // not copied: a copy of what is nested deeply takes all of the stack
    if (found == request.end() || !found->is_object())
        throw RequestError("'keys' must be an object");
    Json const& given = *found;
    for (auto const& [key, value] : given.items()) {
        if (std::find(updateKeysCM.begin(), updateKeysCM.end(), key) == updateKeysCM.end())
            throw RequestError("there is no key '" + shortened(key) + "' of an update; the keys are " + updateKeys());
        keys.emplace_back(key, valueOf<std::string>(given, key));
        if (key == "AdditionalNumPortData")
            refuseDelta(textOf(given, key));
        if (key == "PrintData" && !keys.back().second.empty())
            refuseKeptFile(textOf(given, key));
    }
    if (!laneM.push({LoadLane::UPDATE, {}, std::move(keys), client, false, valueOf(request, "force", false)}))
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
    bool const follow = valueOf(request, "follow", false);
    ReportHub::Recent const recent = partsM.hub.since(partsM.hub.last(recentReportsCM));
    Json reports = Json::array();
    for (LogReport const& report : recent.reports)
        reports.push_back(toJson(report));
    serverM->send(client, lineOf({{"ok", true}, {"reports", std::move(reports)}}), follow);
    if (follow)
        followersM[client] = recent.next;
}

} // namespace nphost
