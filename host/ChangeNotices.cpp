#include "host/ChangeNotices.h"

#include "host/FrameworkObjects.h"

#include <algorithm>
#include <new>
#include <utility>

namespace nphost {

ChangeNotices::ChangeNotices(LoadedPlugIn& plugIn, WakeUp const& wakeUp, DueChanges::Clock clock)
    : plugInM(plugIn), wakeUpM(wakeUp), dueM(std::move(clock)), threadM([this] { run(); }) {}

ChangeNotices::~ChangeNotices() {
    {
        BAS::MutexGuard const guard(lockM);
        stopM = true;
    }
    changedM.notify_all();
    threadM.join();
}

void ChangeNotices::step() {
    if (auto const found = takeFound()) {
        dueM.renew(found->changes, found->liveSince);
        askedM = false;
    }
    DAT::NumberPortability::ServiceStatus const status = plugInM.serviceStatus();
    if (dueM.isDue())
        if (auto const notice = dueM.take(status.liveSince))
            announce(*notice);
    if (status.loads != loadsM || (dueM.wantsList() && !askedM))
        request(status);
}

// The clock counts whole seconds, so the last one is watched more closely. It may also be put forward while the loop
// waits.
std::optional<int> ChangeNotices::patience() const {
    constexpr std::uint64_t longestSeconds = 60;
    constexpr int lastSecondMilliseconds = 100;
    std::optional<std::uint64_t> const left = dueM.secondsLeft();
    if (!left)
        return std::nullopt;
    return *left <= 1 ? lastSecondMilliseconds : static_cast<int>(1000 * std::min(*left - 1, longestSeconds));
}

void ChangeNotices::announce(DueChanges::Notice const& notice) {
    BAS::Message message("nphost", EventHandler::nameCM, "EVT::ASSIGNMENTS_IN_EFFECT",
                         BAS::String::convert(notice.changes.count));
    message.arguments().append(BAS::String(notice.changes.number));
    message.arguments().append(BAS::String(notice.changes.network));
    message.arguments().append(notice.at.asString("%Y%m%d%H%M%S"));
    senderM.sendMessage(message);
}

void ChangeNotices::request(DAT::NumberPortability::ServiceStatus const& status) {
    askedM = true;
    loadsM = status.loads;
    BAS::DateTime const after = dueM.listAfter(status.liveSince);
    {
        BAS::MutexGuard const guard(lockM);
        requestM = after;
    }
    changedM.notify_all();
}

std::optional<ChangeNotices::Found> ChangeNotices::takeFound() {
    BAS::MutexGuard const guard(lockM);
    return std::exchange(foundM, std::nullopt);
}

bool ChangeNotices::nextRequest(BAS::DateTime& after) {
    BAS::MutexGuard const guard(lockM);
    while (!stopM && !requestM)
        changedM.wait(lockM);
    if (stopM)
        return false;
    after = *std::exchange(requestM, std::nullopt);
    return true;
}

void ChangeNotices::run() {
    for (BAS::DateTime after; nextRequest(after);)
        search(after);
}

void ChangeNotices::search(BAS::DateTime after) {
    Found found;
    bool const complete = plugInM.visitUpcoming(
        after, found.liveSince,
        [&](BAS::String const& number, DAT::NumberPortability::NumberPortabilityData const& record) {
            found.changes.add(record.validFromM, number.view(), record.networkIdM.view());
        });
    if (!complete)
        return;
    {
        BAS::MutexGuard const guard(lockM);
        foundM = std::move(found);
    }
    wakeUpM.wake();
}

} // namespace nphost
