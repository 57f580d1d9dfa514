// A client module of which each build misbehaves in its own way, or does what it should: NP_BEHAVES says which.
#include "plugin/PlugInClient.h"

#include <atomic>
#include <stdexcept>
#include <thread>

namespace {

enum Behaviour { WORKS, REFUSES, THROWS, THROWS_FOREIGN };

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

} // namespace

bool NumberPortabilityClientStart(DAT::NumberPortability::PlugIn& plugIn) {
    switch (NP_BEHAVES) {
    case REFUSES:
        return false;
    case THROWS:
        throw std::runtime_error("no licence");
    case THROWS_FOREIGN:
        throw 5;
    default:
        worker = std::thread([&plugIn] { work(plugIn); });
        return true;
    }
}

void NumberPortabilityClientStop() {
    stopped = true;
    worker.join();
    throw std::runtime_error("stopping hurts");
}
