#include "host/UpdateRunner.h"

#include "host/Configuration.h"
#include "host/SameFile.h"

#include <new>
#include <utility>

namespace nphost {

UpdateRunner::UpdateRunner(LoadedPlugIn& plugIn, std::filesystem::path configuration, LoadGuard& guard,
                           WakeUp const& wakeUp)
    : plugInM(plugIn), configurationM(std::move(configuration)), guardM(guard), wakeUpM(wakeUp),
      threadM([this] { run(); }) {}

UpdateRunner::~UpdateRunner() {
    {
        BAS::MutexGuard const guard(lockM);
        stopM = true;
    }
    changedM.notify_all();
    threadM.join();
}

bool UpdateRunner::push(std::uint64_t client, Keys keys, bool force) {
    {
        BAS::MutexGuard const guard(lockM);
        if (updatesM >= mostWaitingCM)
            return false;
        waitingM.push_back({client, std::move(keys), std::nullopt, {}, force});
        ++updatesM;
    }
    changedM.notify_all();
    return true;
}

std::vector<UpdateRunner::Done> UpdateRunner::takeDone() {
    BAS::MutexGuard const guard(lockM);
    return std::exchange(doneM, {});
}

void UpdateRunner::pushCheck(LoadKind kind, std::string file, bool force) {
    {
        BAS::MutexGuard const guard(lockM);
        waitingM.push_back({0, {}, kind, std::move(file), force});
    }
    changedM.notify_all();
}

std::optional<LoadCheck> UpdateRunner::takeCheck() {
    BAS::MutexGuard const guard(lockM);
    return std::exchange(checkedM, std::nullopt);
}

void UpdateRunner::loadEnded() {
    {
        BAS::MutexGuard const guard(lockM);
        loadingM = false;
    }
    changedM.notify_all();
}

bool UpdateRunner::next(Job& job) {
    BAS::MutexGuard const guard(lockM);
    while (!stopM && waitingM.empty())
        changedM.wait(lockM);
    if (stopM)
        return false;
    job = std::move(waitingM.front());
    waitingM.pop_front();
    updatesM -= job.check ? 0 : 1;
    return true;
}

void UpdateRunner::run() {
    for (Job job; next(job);)
        job.check ? check(job) : update(job);
}

void UpdateRunner::update(Job const& job) {
    Done done;
    done.client = job.client;
    auto const begin = ReportHub::Clock::now();
    try {
        carryOut(job, done);
    } catch (std::bad_alloc const&) { // NOLINT(bugprone-empty-catch): not even begun, and so without a result
    }
    guardM.ended();
    done.seconds = std::chrono::duration<double>(ReportHub::Clock::now() - begin).count();
    {
        BAS::MutexGuard const guard(lockM);
        doneM.push_back(std::move(done));
    }
    wakeUpM.wake();
}

void UpdateRunner::check(Job const& job) {
    LoadCheck outcome;
    try {
        outcome = guardM.check(*job.check, job.file, job.force);
    } catch (std::bad_alloc const&) {
        outcome = LoadCheck();
    }
    BAS::MutexGuard const guard(lockM);
    loadingM = outcome.passed;
    checkedM = std::move(outcome);
    wakeUpM.wake();
    while (loadingM && !stopM)
        changedM.wait(lockM);
    if (!loadingM) // otherwise the plug-in still ends it, and then ends itself
        guardM.ended();
}

// The name was checked when the request came, but what it means may have changed while the request waited.
bool UpdateRunner::refusesTarget(BAS::RegistryEntry const& keys) {
    BAS::RegistryEntry const* const target = keys.find("PrintData");
    if (target == nullptr || target->value().empty())
        return false;
    KeptFiles const files{plugInM.serviceStatus().dataFileName.str(), configurationM};
    char const* const kept = files.nameOf(target->value().str());
    if (kept == nullptr)
        return false;
    reportPrintRefused(target->value().str(), kept);
    return true;
}

// What the plug-in will refuse without loading anything needs no check.
LoadCheck UpdateRunner::checkLoadOf(BAS::RegistryEntry const& keys, bool force) {
    BAS::RegistryEntry const* const delta = keys.find("AdditionalNumPortData");
    bool const isReload = keys.find("Reload") != nullptr;
    if (isReload == (delta != nullptr)) {
        LoadCheck none;
        none.passed = true;
        return none;
    }
    return isReload ? guardM.check(LoadKind::RELOAD, plugInM.serviceStatus().dataFileName.str(), force)
                    : guardM.check(LoadKind::DELTA, delta->value().str(), force);
}

void UpdateRunner::carryOut(Job const& job, Done& done) {
    BAS::RegistryEntry keys{BAS::String(plugInNameCM)};
    for (auto const& [key, value] : job.keys)
        keys.append(BAS::RegistryEntry(BAS::String(key), BAS::String(value)));
    ReportHub::CollectingScope const scope(done.reports);
    if (refusesTarget(keys))
        return;
    done.check = checkLoadOf(keys, job.force);
    if (!done.check.passed)
        return;
    BAS::ProtectedBool handled;
    done.result = plugInM.update(keys, handled);
    done.handled = handled.get();
}

} // namespace nphost
