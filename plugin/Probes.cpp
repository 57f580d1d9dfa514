// Instrumentation probes, and the worker thread that carries out what they ask for.
#include "cache/CacheManager.h"
#include "framework/OMF/InstrumentationProbeBrokerIf.h"
#include "plugin/Guarded.h"
#include "plugin/PlugIn.h"

#include <utility>

namespace DAT::NumberPortability {

template <PlugIn::ProbeMode mode>
class PlugIn::ProbeValue : public BAS::InstrumentationProbeValueIf {
  public:
    explicit ProbeValue(PlugIn* plugIn) : plugInM(plugIn) {}

    bool setValue(BAS::String const& value) override {
        return plugInM->guarded([&] {
            plugInM->post(mode, value);
            return true;
        });
    }

  private:
    PlugIn* plugInM; // owns the group that owns this
};

bool PlugIn::initInstrumentationProbe() {
    OMF::InstrumentationProbeBrokerIf::ProbeInfoMap infos;
    // A probe that the file does not describe is there all the same, with empty texts.
    if (!OMF::InstrumentationProbeBrokerIf::ReadProbeInfoFile(this, "DAT_NumberPortability.probe", infos))
        return false;
    auto group = std::make_unique<BAS::InstrumentationProbeGroup>(infos["numberPortabilityGroup"], 1);
    auto const append = [&](char const* probe, std::unique_ptr<BAS::InstrumentationProbeValueIf> value) {
        auto attribute = std::make_unique<BAS::InstrumentationProbeAttribute>(infos[probe], value.get(), 1);
        static_cast<void>(value.release()); // the attribute's from here on
        group->append(attribute.get());
        static_cast<void>(attribute.release()); // and this the group's
    };
    append("reload", std::make_unique<ReloadProbeValue>(this));
    append("deltaLoad", std::make_unique<AdditionalNumPortDataValue>(this));
    append("printData", std::make_unique<PrintDataProbeValue>(this));
    // Whole or not at all: whoever asks for the probes never meets some of them.
    probeGroupM = std::move(group);
    return true;
}

void PlugIn::getInstrumentationProbe(BAS::InstrumentationProbeList& list) const {
    try {
        if (probeGroupM != nullptr)
            list.append(probeGroupM.get());
    } catch (...) { // NOLINT(bugprone-empty-catch): nothing may be thrown to the framework; the list stays short
    }
}

void PlugIn::setProbeName(ProbeMode const& mode) {
    probeModeM = mode;
}

void PlugIn::setProbeValue(BAS::String const& value) {
    probeValueM = value;
}

// Mode and value change together, so that the worker never sees the one without the other.
void PlugIn::post(ProbeMode mode, BAS::String const& value) {
    {
        BAS::MutexGuard const guard(requestDataLockM);
        setProbeValue(value); // the one that can fail comes first
        setProbeName(mode);
        requestPendingM = true;
    }
    // Behind the data: a worker that passes must find what it was woken for.
    unLock();
}

// False when the request behind this pass was taken by the pass before: it was posted between that pass's way through
// the gate and its taking.
bool PlugIn::takeRequest(Request& request) {
    BAS::MutexGuard const guard(requestDataLockM);
    request = {probeModeM, probeValueM};
    return std::exchange(requestPendingM, false);
}

void PlugIn::run() {
    constexpr unsigned long sleepMilliseconds = 500;
    BAS::Thread* const thread = BAS::Thread::current();
    for (;;) {
        // At the top, so that the worker waits before its first request too. Several requests while it is busy give one
        // further pass, with the latest mode and value.
        lock();
        if (thread != nullptr) {
            thread->serviceInterrupt();
            thread->serviceCancellation();
        }
        // Asked behind the gate, for the stop opens it; and before the request, which is not carried out any more.
        if (stopRequestedM.load())
            break;
        guarded([this] {
            Request request{RELOAD_PROBE, BAS::NULL_STRING};
            if (takeRequest(request))
                carryOut(request.mode, request.value);
            return true;
        });
    }
    // A managed thread ends by its cancellation alone; on any other thread this returns.
    while (thread != nullptr) { // until a cancellation ends the thread
        thread->serviceInterrupt();
        thread->serviceCancellation();
        thread->sleep(sleepMilliseconds);
    }
}

bool PlugIn::carryOut(ProbeMode mode, BAS::String const& value) {
    return guarded([&] {
        switch (mode) {
        case RELOAD_PROBE:
            return probeReload(value);
        case DELTA_LOAD_PROBE:
            return probeDeltaLoad(value);
        case PRINT_DATA_PROBE:
            return probePrint(value);
        }
        return false;
    });
}

bool PlugIn::probeReload(BAS::String const& value) {
    bool const reuse = value.upper() != "FALSE";
    bool reloaded = false;
    {
        // Let go before the event: its receiver may command the next load, on this thread or another.
        BAS::MutexGuard const guard(loadLockM);
        reloaded =
            // The cache manager checks the file itself; an update checks it before, too, and so reports it twice.
            recorded(LoadOutcome::RELOAD, fileNameM, [&](CacheManager& cache) { return cache.cacheReload(reuse); });
        reported([&] {
            if (reloaded)
                report("INF_NUM_NPORT_RELOADED", BAS::Status::NORMAL, {BAS::String::convert(entries())});
            else
                report("ERR_NUM_PORT_RELOAD", BAS::Status::MAJOR, {fileNameM});
        });
    }
    sendEvent(reloaded ? "EVT::RELOAD_SUCCESSFUL" : "EVT::RELOAD_FAILED");
    return reloaded;
}

bool PlugIn::probeDeltaLoad(BAS::String const& fileName) {
    bool loaded = false;
    {
        BAS::MutexGuard const guard(loadLockM);
        // Within the lock, so that no other load comes between the counts and is taken for this one.
        std::uint32_t const before = entries();
        loaded = recorded(LoadOutcome::DELTA_LOAD, fileName,
                          [&](CacheManager& cache) { return cache.cacheDeltaLoad(fileName); });
        std::uint32_t const after = entries();
        reported([&] {
            if (!loaded)
                report("ERR_NUM_PORT_DELTALOAD", BAS::Status::MAJOR, {fileName});
            else if (after != before)
                report("INF_NUM_NPORT_ADDED", BAS::Status::NORMAL,
                       {BAS::String::convert(after - before) + " : " + fileName});
        });
    }
    sendEvent(loaded ? "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL" : "EVT::ADD_NUM_PORT_DATA_FAILED");
    return loaded;
}

// Without the lock for loads: a listing reads what is live, and a load may go on beside it up to its exchange.
bool PlugIn::probePrint(BAS::String const& value) {
    bool const console = value.empty() || value.upper() == "NULL";
    bool const printed = guarded(
        [&] { return cacheManagerM != nullptr && cacheManagerM->printData(console ? BAS::NULL_STRING : value); });
    reported([&] {
        if (printed)
            report(
                "INF_NUM_PORT_PRINT_DATA", BAS::Status::NORMAL,
                {BAS::String::convert(entries()), console ? BAS::String("Console") : BAS::String("File : ") + value});
        else
            report("ERR_NUM_PORT_PRINT_DATA", BAS::Status::MAJOR, {value});
    });
    return printed;
}

} // namespace DAT::NumberPortability
