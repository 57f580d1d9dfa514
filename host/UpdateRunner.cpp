#include "host/UpdateRunner.h"

#include "host/Configuration.h"
#include "host/SameFile.h"

#include <new>

namespace nphost {

UpdateRunner::UpdateRunner(LoadedPlugIn& plugIn, WakeUp const& wakeUp)
    : plugInM(plugIn), wakeUpM(wakeUp), threadM([this] { run(); }) {}

UpdateRunner::~UpdateRunner() {
    {
        BAS::MutexGuard const guard(lockM);
        stopM = true;
    }
    changedM.notify_all();
    threadM.join();
}

bool UpdateRunner::push(std::uint64_t client, Keys keys) {
    {
        BAS::MutexGuard const guard(lockM);
        if (waitingM.size() >= mostWaitingCM)
            return false;
        waitingM.push_back({client, std::move(keys)});
    }
    changedM.notify_all();
    return true;
}

std::vector<UpdateRunner::Done> UpdateRunner::takeDone() {
    BAS::MutexGuard const guard(lockM);
    return std::exchange(doneM, {});
}

bool UpdateRunner::next(Job& job) {
    BAS::MutexGuard const guard(lockM);
    while (!stopM && waitingM.empty())
        changedM.wait(lockM);
    if (stopM)
        return false;
    job = std::move(waitingM.front());
    waitingM.pop_front();
    return true;
}

void UpdateRunner::run() {
    for (Job job; next(job);) {
        Done done;
        try {
            done = carryOut(job);
        } catch (std::bad_alloc const&) { // not even begun
            done.client = job.client;
        }
        {
            BAS::MutexGuard const guard(lockM);
            doneM.push_back(std::move(done));
        }
        wakeUpM.wake();
    }
}

// The name was checked when the request came, but what it means may have changed while the request waited.
bool UpdateRunner::refusesTarget(BAS::RegistryEntry const& keys) {
    BAS::RegistryEntry const* const target = keys.find("PrintData");
    if (target == nullptr || target->value().empty() ||
        !isSameFile(plugInM.serviceStatus().dataFileName.str(), target->value().str()))
        return false;
    reportPrintRefused(target->value().str());
    return true;
}

UpdateRunner::Done UpdateRunner::carryOut(Job const& job) {
    Done done;
    done.client = job.client;
    BAS::RegistryEntry keys{BAS::String(plugInNameCM)};
    for (auto const& [key, value] : job.keys)
        keys.append(BAS::RegistryEntry(BAS::String(key), BAS::String(value)));
    BAS::ProtectedBool handled;
    auto const begin = ReportHub::Clock::now();
    {
        ReportHub::CollectingScope const scope(done.reports);
        if (refusesTarget(keys))
            return done;
        done.result = plugInM.update(keys, handled);
    }
    done.seconds = std::chrono::duration<double>(ReportHub::Clock::now() - begin).count();
    done.handled = handled.get();
    return done;
}

} // namespace nphost
