#include "host/ProbeQueue.h"

#include "host/HostError.h"
#include "host/SameFile.h"

#include <algorithm>

namespace nphost {

ProbeQueue::ProbeQueue(LoadedPlugIn& plugIn, ReportHub& hub) : plugInM(plugIn), hubM(hub), probesM(plugIn.probes()) {
    constexpr std::size_t kinds = 3;
    if (probesM.size() != kinds)
        throw HostError("the plug-in has not the probes for reload, delta load and print");
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
    hubM.expect(currentM->kind);
    if (refusesTarget())
        return;
    if (!probesM[static_cast<std::size_t>(currentM->kind)]->setValue(BAS::String(currentM->value)))
        hubM.giveUp(); // no memory for the value: nobody will carry it out
}

// The name was checked when the request came, but what it means may have changed while the request waited.
bool ProbeQueue::refusesTarget() {
    if (currentM->kind != ProbeKind::PRINT || !isSameFile(plugInM.serviceStatus().dataFileName.str(), currentM->value))
        return false;
    reportPrintRefused(currentM->value);
    hubM.giveUp();
    return true;
}

std::optional<ProbeQueue::Finished> ProbeQueue::takeFinished() {
    if (!currentM)
        return std::nullopt;
    checkTrouble();
    std::optional<ProbeOutcome> outcome = hubM.takeOutcome();
    if (!outcome)
        return std::nullopt;
    std::chrono::duration<double> const seconds = ReportHub::Clock::now() - startedM;
    Finished finished{std::move(*currentM), std::move(*outcome), seconds.count()};
    currentM.reset();
    startNext();
    return finished;
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
