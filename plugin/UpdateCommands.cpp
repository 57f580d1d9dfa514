// Run-time update commands: carried out at once, on the thread that calls registryUpdate.
#include "cache/CacheManager.h"
#include "plugin/Guarded.h"
#include "plugin/PlugIn.h"

namespace DAT::NumberPortability {

bool PlugIn::registryUpdate(BAS::RegistryEntry const* update, BAS::ProtectedBool& updateHandled) {
    return guarded([&] {
        if (update == nullptr)
            return true;
        // In this order, so that a listing shows what came of the loads; the first that fails ends the update.
        if (update->find(registryReloadCM) != nullptr && !updateReload(*update, updateHandled))
            return false;
        if (BAS::RegistryEntry const* const delta = update->find(registryAdditionalNumPortDataCM)) {
            updateHandled.set(true);
            if (!updateDeltaLoad(delta->value()))
                return false;
        }
        if (BAS::RegistryEntry const* const print = update->find(registryPrintDataCM)) {
            updateHandled.set(true);
            return updatePrint(print->value());
        }
        return true;
    });
}

// False ends the update; a failed reload with the reuse flag set does not.
bool PlugIn::updateReload(BAS::RegistryEntry const& update, BAS::ProtectedBool& updateHandled) {
    updateHandled.set(true);
    // Refused before anything is loaded: which of the two was meant cannot be told.
    if (update.find(registryAdditionalNumPortDataCM) != nullptr) {
        report("ERR_INVALID_REG_ENTRIES", BAS::Status::CRITICAL,
               {"Both 'Reload' and 'AdditionalNumPortData' can not be specified in update registry."});
        return false;
    }
    bool reuse = defaultReuseOnFailureCM;
    if (!readReuseFlag(update, reuse))
        return false;

    // The event comes when the lock for loads is free again: its receiver may command the next one.
    bool const reloaded = reloadForUpdate(reuse);
    sendEvent(reloaded ? "EVT::RELOAD_SUCCESSFUL" : "EVT::RELOAD_FAILED");
    return reloaded || reuse;
}

bool PlugIn::reloadForUpdate(bool reuse) {
    BAS::MutexGuard const guard(loadLockM);
    report("INF_RELOAD_DATA", BAS::Status::NORMAL, {name()});
    bool const reloaded = recorded(LoadOutcome::RELOAD, fileNameM,
                                   [&](CacheManager& cache) { return checkFile() && cache.cacheReload(reuse); });
    reported([&] { closeCheckedFile(); });
    if (reloaded)
        reported([&] { report("INF_NUM_NPORT_RELOADED", BAS::Status::NORMAL, {BAS::String::convert(entries())}); });
    else
        fileOkM.store(reuse); // before the event: its receiver may ask isUsable, or command the next reload
    return reloaded;
}

bool PlugIn::readReuseFlag(BAS::RegistryEntry const& update, bool& reuse) {
    BAS::RegistryEntry const* const entry = update.find(registryReuseOnFailureCM);
    if (entry == nullptr)
        return true;
    BAS::String const value = entry->value().upper();
    if (value != "TRUE" && value != "FALSE") {
        report("ERR_INVALID_REG_VALUE", BAS::Status::CRITICAL, {value, registryReuseOnFailureCM});
        return false;
    }
    reuse = value == "TRUE";
    return true;
}

bool PlugIn::updateDeltaLoad(BAS::String const& fileName) {
    bool const loaded = deltaLoadForUpdate(fileName);
    sendEvent(loaded ? "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL" : "EVT::ADD_NUM_PORT_DATA_FAILED");
    return loaded;
}

bool PlugIn::deltaLoadForUpdate(BAS::String const& fileName) {
    BAS::MutexGuard const guard(loadLockM);
    report("INF_ADD_DATA", BAS::Status::NORMAL, {name()});
    std::uint32_t before = 0;
    std::uint32_t after = 0;
    bool const loaded = recorded(LoadOutcome::DELTA_LOAD, fileName, [&](CacheManager& cache) {
        if (!checkFile(fileName))
            return false;
        // Both: a load that throws is then one that added nothing.
        before = after = entries();
        bool const added = cache.cacheDeltaLoad(fileName);
        after = entries();
        return added;
    });
    reported([&] { closeCheckedFile(); });
    // What is live is told of, even where the load failed after its exchange.
    if (loaded || after != before)
        reported([&] { report("INF_NUM_NPORT_ADDED", BAS::Status::NORMAL, {BAS::String::convert(after - before)}); });
    return loaded;
}

// A listing that fails takes nothing back of the load before it: its reports tell, and the update's result only where
// memory does not suffice even for these.
bool PlugIn::updatePrint(BAS::String const& target) {
    bool told = cacheManagerM == nullptr ||
                guarded([&] { return cacheManagerM->printData(target.empty() ? BAS::NULL_STRING : target); });
    if (!told)
        guarded([&] {
            report("ERR_NUM_PORT_PRINT_DATA", BAS::Status::MAJOR, {target});
            return told = true;
        });
    return told;
}

} // namespace DAT::NumberPortability
