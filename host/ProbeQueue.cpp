#include "host/ProbeQueue.h"

#include "host/HostError.h"
#include "host/SameFile.h"

#include <algorithm>
#include <new>
#include <utility>

namespace nphost {

ProbeQueue::ProbeQueue(LoadedPlugIn& plugIn, std::filesystem::path configuration, ReportHub& hub, UpdateRunner& updates)
    : plugInM(plugIn), configurationM(std::move(configuration)), hubM(hub), updatesM(updates),
      probesM(plugIn.probes()) {
    constexpr std::size_t kinds = 3;
    if (probesM.size() != kinds)
        throw HostError("the plug-in has not the probes for reload, delta load and print");
    hubM.recogniseWorker([this] { return plugInM.isWorker(); });
}

// The worker may go on with a request after the daemon has ended.
ProbeQueue::~ProbeQueue() {
    hubM.recogniseWorker(nullptr);
}

void ProbeQueue::push(ProbeRequest request) {
    waitingM.push_back(std::move(request));
    if (!currentM)
        startNext();
}

void ProbeQueue::startNext() {
    if (waitingM.empty())
        return;
    currentM = std::move(waitingM.front());
    waitingM.pop_front();
    startedM = ReportHub::Clock::now();
    checkM = LoadCheck();
    checkingM = updatesM.isGuarding() && currentM->kind != ProbeKind::PRINT;
    if (checkingM)
        askForCheck();
    else
        writeProbe();
}

void ProbeQueue::askForCheck() {
    try {
        if (currentM->kind == ProbeKind::RELOAD)
            updatesM.pushCheck(LoadKind::RELOAD, plugInM.serviceStatus().dataFileName.str(), currentM->force);
        else
            updatesM.pushCheck(LoadKind::DELTA, currentM->value, currentM->force);
    } catch (std::bad_alloc const&) { // nobody will check it
        checkingM = false;
        hubM.expect(currentM->kind);
        hubM.giveUp();
    }
}

void ProbeQueue::writeProbe() {
    hubM.expect(currentM->kind);
    if (refusesTarget())
        return;
    if (!probesM[static_cast<std::size_t>(currentM->kind)]->setValue(BAS::String(currentM->value)))
        hubM.giveUp(); // no memory for the value: nobody will carry it out
}

// The name was checked when the request came, but what it means may have changed while the request waited.
bool ProbeQueue::refusesTarget() {
    KeptFiles const files{plugInM.serviceStatus().dataFileName.str(), configurationM};
    char const* const kept = currentM->kind == ProbeKind::PRINT ? files.nameOf(currentM->value) : nullptr;
    if (kept == nullptr)
        return false;
    reportPrintRefused(currentM->value, kept);
    hubM.giveUp();
    return true;
}

std::optional<ProbeQueue::Finished> ProbeQueue::takeFinished() {
    std::optional<ProbeOutcome> outcome = takeOutcome();
    if (!outcome)
        return std::nullopt;
    std::chrono::duration<double> const seconds = ReportHub::Clock::now() - startedM;
    Finished finished{std::move(*currentM), std::move(*outcome), seconds.count(), std::move(checkM)};
    currentM.reset();
    startNext();
    return finished;
}

std::optional<ProbeOutcome> ProbeQueue::takeOutcome() {
    if (!currentM)
        return std::nullopt;
    if (checkingM) {
        std::optional<LoadCheck> check = updatesM.takeCheck();
        if (!check)
            return std::nullopt;
        checkingM = false;
        checkM = std::move(*check);
        if (!checkM.passed)
            return ProbeOutcome();
        writeProbe();
    }
    checkTrouble();
    std::optional<ProbeOutcome> outcome = hubM.takeOutcome();
    if (outcome)
        updatesM.loadEnded();
    return outcome;
}

// A worker without memory may never say how it ended.
void ProbeQueue::checkTrouble() {
    constexpr std::chrono::seconds patience{5};
    auto const trouble = hubM.troubleTime();
    if (trouble && ReportHub::Clock::now() - *trouble > patience && !plugInM.serviceStatus().loading)
        hubM.giveUp();
}

bool ProbeQueue::hasSignalRequest() const {
    return (currentM && currentM->fromSignal) || hasWaitingSignalRequest();
}

bool ProbeQueue::hasWaitingSignalRequest() const {
    return std::any_of(waitingM.begin(), waitingM.end(),
                       [](ProbeRequest const& request) { return request.fromSignal; });
}

} // namespace nphost
