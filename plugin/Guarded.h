// The definitions of PlugIn::shielded, PlugIn::guarded, PlugIn::reported and PlugIn::recorded, for the plug-in's own
// sources.
//
// Purpose: nothing may be thrown to the framework; every load leaves its outcome. Threads, errors: none of its own.
// Complexity: the action's.
#pragma once

#include "cache/CacheManager.h"
#include "plugin/PlugIn.h"

#include <chrono>
#include <exception>
#include <new>

namespace DAT::NumberPortability {

template <class Action>
bool PlugIn::shielded(Action&& action) {
    try {
        return action();
    } catch (std::bad_alloc const&) {
        throw;
    } catch (std::exception const& error) {
        report("ERR_UNEXPECTED", BAS::Status::CRITICAL, {name(), error.what()});
    } catch (...) {
        report("ERR_UNEXPECTED", BAS::Status::CRITICAL, {name(), "of unknown type"});
    }
    return false;
}

template <class Action>
bool PlugIn::guarded(Action&& action) noexcept {
    try {
        try {
            return shielded(action);
        } catch (std::bad_alloc const&) {
            report("ERR_OUT_OF_MEMORY", BAS::Status::CRITICAL, {name()});
        }
    } catch (...) { // NOLINT(bugprone-empty-catch): not even the report could be made
    }
    return false;
}

template <class Report>
void PlugIn::reported(Report&& make) noexcept {
    guarded([&] {
        make();
        return true;
    });
}

template <class Load>
bool PlugIn::recorded(LoadOutcome::Kind kind, BAS::String const& fileName, Load&& load) {
    using Clock = std::chrono::steady_clock;
    loadTriedM = true;
    {
        BAS::MutexGuard const guard(outcomeLockM);
        loadingM = true;
    }
    if (cacheManagerM != nullptr)
        cacheManagerM->beginLoad(); // the load may end before it comes there
    auto const begin = Clock::now();
    bool const succeeded = guarded([&] { return cacheManagerM != nullptr && load(*cacheManagerM); });
    LoadOutcome outcome{kind, succeeded, BAS::NULL_STRING, BAS::DateTime::now()};
    outcome.duration = std::chrono::duration<double>(Clock::now() - begin).count();
    if (cacheManagerM != nullptr) {
        outcome.lines = cacheManagerM->linesRead();
        outcome.counts = cacheManagerM->lineCounts();
    }
    guarded([&] {
        outcome.fileName = fileName;
        return true;
    });
    BAS::MutexGuard const guard(outcomeLockM);
    loadingM = false;
    ++loadsM;
    lastLoadM = std::move(outcome);
    return succeeded;
}

} // namespace DAT::NumberPortability
