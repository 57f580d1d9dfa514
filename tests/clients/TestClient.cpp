// A client module of which each build misbehaves in its own way, or does what it should: NP_BEHAVES says which.
#include "plugin/PlugInClient.h"

#include <atomic>
#include <stdexcept>
#include <thread>

namespace {

enum Behaviour { WORKS, LOADS, REFUSES, THROWS, THROWS_FOREIGN };

std::thread worker;
std::atomic<bool> stopped{false};

// Looks up until it is stopped: the answer never changes, whatever is reloaded meanwhile.
void work(DAT::NumberPortability::PlugIn& plugIn) {
    DAT::NumberPortability::NumberPortabilityData record;
    BAS::Status status;
    status.set("TestClient", "ERR_TEST_CLIENT_ANSWER", BAS::Status::CRITICAL, "-");
    while (!stopped) {
        bool const found = plugIn.search("00447700900123", BAS::DateTime("20240615120000"), record);
        if (!found || record.networkIdM.view() != "BRAVO")
            BAS::RegisteredObject::writeLog(status);
    }
}

// Loads until it is stopped: the data file, and as a delta the file beside it.
void load(DAT::NumberPortability::PlugIn& plugIn) {
    BAS::RegistryEntry reload{BAS::String("DAT_NumberPortability")};
    reload.append(BAS::RegistryEntry("Reload", "TRUE"));
    BAS::RegistryEntry delta{BAS::String("DAT_NumberPortability")};
    delta.append(BAS::RegistryEntry("AdditionalNumPortData", plugIn.serviceStatus().dataFileName + ".client"));
    BAS::ProtectedBool handled;
    while (!stopped) {
        plugIn.registryUpdate(&reload, handled);
        plugIn.registryUpdate(&delta, handled);
        std::this_thread::yield();
    }
}

} // namespace

bool NumberPortabilityClientStart(DAT::NumberPortability::PlugIn& plugIn) {
    switch (NP_BEHAVES) {
    case REFUSES:
        return false;
    case THROWS:
        throw std::runtime_error("no licence");
    case THROWS_FOREIGN:
        throw 5;
    case LOADS:
        worker = std::thread([&plugIn] { load(plugIn); });
        return true;
    default:
        worker = std::thread([&plugIn] { work(plugIn); });
        return true;
    }
}

void NumberPortabilityClientStop() {
    stopped = true;
    worker.join();
    if (NP_BEHAVES == WORKS)
        throw std::runtime_error("stopping hurts");
}
