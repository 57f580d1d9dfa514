#include "host/daemon/ChangeNotices.h"

#include "host/base/GiveWay.h"
#include "host/base/Instant.h"
#include "host/module/FrameworkObjects.h"

#include <algorithm>
#include <new>
#include <utility>

namespace nphost {

ChangeNotices::ChangeNotices(LoadedPlugIn& plugIn, WakeUp const& wakeUp, bool announces, Clocks clocks)
    : plugInM(plugIn), wakeUpM(wakeUp), announcesM(announces), clocksM(std::move(clocks)), dueM(clocksM.now),
      threadM([this] { run(); }) {}

// A search under way is waited for: it cannot be broken off, and uses the plug-in.
ChangeNotices::~ChangeNotices() {
    {
        BAS::MutexGuard const guard(lockM);
        stopM = true;
    }
    changedM.notify_all();
    threadM.join();
}

// The loop's thread. What was found is taken first, so that it is announced in the same turn.
void ChangeNotices::step() {
    if (auto const found = takeFound()) {
        askedM = false;
        if (found->complete)
            dueM.renew(found->changes, clocksM.at(found->liveSince));
        else
            // An old list, if there is one, goes on being announced meanwhile.
            failedAtM = clocksM.now();
    }
    DAT::NumberPortability::ServiceStatus const status = plugInM.serviceStatus();
    if (dueM.isDue())
        if (auto const notice = dueM.take(clocksM.at(status.liveSince)))
            announce(*notice);
    // After a load the old list is out of date, whatever became of it; a search that failed waits for its pause.
    if (status.loads != loadsM || ((dueM.wantsList() || failedAtM) && !askedM && pauseLeft() == 0))
        request(status);
}

// In seconds; 0 also when the clock was put back.
std::uint64_t ChangeNotices::pauseLeft() const {
    constexpr std::uint64_t pauseSeconds = 60; // when memory is short, a search in a loop would not mend it
    if (!failedAtM)
        return 0;
    std::uint64_t const now = clocksM.now().seconds();
    std::uint64_t const failed = failedAtM->seconds();
    return now < failed ? 0 : failed + pauseSeconds - std::min(now, failed + pauseSeconds);
}

// The clock counts whole seconds, so the last one is watched more closely. It may also be put forward while the loop
// waits.
std::optional<int> ChangeNotices::patience() const {
    constexpr std::uint64_t longestSeconds = 60;
    constexpr int lastSecondMilliseconds = 100;
    std::optional<std::uint64_t> left = dueM.secondsLeft();
    if (failedAtM && !askedM)
        left = std::min(left.value_or(longestSeconds), pauseLeft());
    if (!left)
        return std::nullopt;
    return *left <= 1 ? lastSecondMilliseconds : static_cast<int>(1000 * std::min(*left - 1, longestSeconds));
}

void ChangeNotices::announce(DueChanges::Notice const& notice) {
    if (!announcesM)
        return;
    BAS::Message message("nphost", EventHandler::nameCM, "EVT::ASSIGNMENTS_IN_EFFECT",
                         BAS::String::convert(notice.changes.count));
    message.arguments().append(BAS::String(notice.changes.number));
    message.arguments().append(BAS::String(notice.changes.network));
    message.arguments().append(BAS::String(digitsOf(notice.at)));
    senderM.sendMessage(message);
}

void ChangeNotices::request(DAT::NumberPortability::ServiceStatus const& status) {
    askedM = true;
    failedAtM.reset();
    // The loads of now, not of the search's end: a load that ends meanwhile makes for another search.
    loadsM = status.loads;
    BAS::DateTime const after = dueM.listAfter(clocksM.at(status.liveSince));
    {
        BAS::MutexGuard const guard(lockM);
        // One that has not begun yet is replaced: nobody wants the older list any more.
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
    giveWay();
    for (BAS::DateTime after; nextRequest(after);)
        search(after);
}

// The searching thread. It holds no lock while it searches, which may take seconds; only the plug-in's, as a long
// reader.
void ChangeNotices::search(BAS::DateTime after) {
    Found found;
    found.complete = plugInM.visitUpcoming(
        after, found.liveSince,
        [&](BAS::String const& number, DAT::NumberPortability::NumberPortabilityData const& record) {
            found.changes.add(record.validFromM, number.view(), record.networkIdM.view());
        });
    {
        BAS::MutexGuard const guard(lockM);
        // The loop takes it when it is awake, so it is put down first and the loop woken then.
        foundM = std::move(found);
    }
    wakeUpM.wake();
}

} // namespace nphost
