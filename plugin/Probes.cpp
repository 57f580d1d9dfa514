// Instrumentation probes, and the worker thread that carries out what they ask for.
#include "cache/CacheManager.h"
#include "framework/OMF/InstrumentationProbeBrokerIf.h"
#include "plugin/Guarded.h"
#include "plugin/PlugIn.h"

namespace DAT::NumberPortability {

// Posts a request of one kind; each probe's class says which.
class PlugIn::ProbeValue : public BAS::InstrumentationProbeValueIf {
  public:
    bool setValue(BAS::String const& value) override {
        return plugInM->guarded([&] {
            plugInM->post(modeM, value);
            return true;
        });
    }

  protected:
    ProbeValue(PlugIn* plugIn, ProbeMode mode) : plugInM(plugIn), modeM(mode) {}

  private:
    PlugIn* plugInM; // owns the group that owns this
    ProbeMode modeM;
};

class PlugIn::ReloadProbeValue : public ProbeValue {
  public:
    explicit ReloadProbeValue(PlugIn* plugIn) : ProbeValue(plugIn, RELOAD_PROBE) {}
};

class PlugIn::AdditionalNumPortDataValue : public ProbeValue {
  public:
    explicit AdditionalNumPortDataValue(PlugIn* plugIn) : ProbeValue(plugIn, DELTA_LOAD_PROBE) {}
};

class PlugIn::PrintDataProbeValue : public ProbeValue {
  public:
    explicit PrintDataProbeValue(PlugIn* plugIn) : ProbeValue(plugIn, PRINT_DATA_PROBE) {}
};

bool PlugIn::initInstrumentationProbe() {
    OMF::InstrumentationProbeBrokerIf::ProbeInfoMap infos;
    if (!OMF::InstrumentationProbeBrokerIf::ReadProbeInfoFile(this, "DAT_NumberPortability.probe", infos))
        return false;
    auto group = std::make_unique<BAS::InstrumentationProbeGroup>(infos["numberPortabilityGroup"], 1);
    auto const append = [&](char const* probe, std::unique_ptr<ProbeValue> value) {
        auto attribute =
            std::make_unique<BAS::InstrumentationProbeAttribute>(infos[probe], value.release(), 1);
        group->append(attribute.release());
    };
    append("reload", std::make_unique<ReloadProbeValue>(this));
    append("deltaLoad", std::make_unique<AdditionalNumPortDataValue>(this));
    append("printData", std::make_unique<PrintDataProbeValue>(this));
    probeGroupM = std::move(group);
    return true;
}

void PlugIn::getInstrumentationProbe(BAS::InstrumentationProbeList& list) const {
    if (probeGroupM != nullptr)
        list.append(probeGroupM.get());
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
    }
    unLock();
}

PlugIn::Request PlugIn::pendingRequest() {
    BAS::MutexGuard const guard(requestDataLockM);
    return {probeModeM, probeValueM};
}

void PlugIn::run() {
    constexpr unsigned long sleepMilliseconds = 500;
    BAS::Thread* const thread = BAS::Thread::current();
    for (;;) {
        lock();
        if (thread != nullptr) {
            thread->serviceInterrupt();
            thread->serviceCancellation();
        }
        if (stopRequestedM.load())
            break;
        guarded([this] {
            carryOut(pendingRequest());
            return true;
        });
    }
    while (thread != nullptr) { // until a cancellation ends the thread
        thread->serviceInterrupt();
        thread->serviceCancellation();
        thread->sleep(sleepMilliseconds);
    }
}

void PlugIn::carryOut(Request const& request) {
    switch (request.mode) {
    case RELOAD_PROBE:
        return probeReload(request.value);
    case DELTA_LOAD_PROBE:
        return probeDeltaLoad(request.value);
    case PRINT_DATA_PROBE:
        return probePrint(request.value);
    }
}

void PlugIn::probeReload(BAS::String const& value) {
    bool const reuse = value.upper() != "FALSE";
    BAS::MutexGuard const guard(loadLockM);
    if (guarded([&] { return cacheManagerM->cacheReload(reuse); })) {
        report("INF_NUM_NPORT_RELOADED", BAS::Status::NORMAL, {BAS::String::convert(entries())});
        sendEvent("EVT::RELOAD_SUCCESSFUL");
        return;
    }
    BAS::String fileName;
    {
        BAS::MutexGuard const fileGuard(fileLockM);
        fileName = fileIoM.fileName();
    }
    report("ERR_NUM_PORT_RELOAD", BAS::Status::MAJOR, {fileName});
    sendEvent("EVT::RELOAD_FAILED");
}

void PlugIn::probeDeltaLoad(BAS::String const& fileName) {
    BAS::MutexGuard const guard(loadLockM);
    std::uint32_t const before = entries();
    if (!guarded([&] { return cacheManagerM->cacheDeltaLoad(fileName); })) {
        report("ERR_NUM_PORT_DELTALOAD", BAS::Status::MAJOR, {fileName});
        sendEvent("EVT::ADD_NUM_PORT_DATA_FAILED");
        return;
    }
    std::uint32_t const after = entries();
    if (after != before)
        report("INF_NUM_NPORT_ADDED", BAS::Status::NORMAL,
               {BAS::String::convert(after - before) + " : " + fileName});
    sendEvent("EVT::ADD_NUM_PORT_DATA_SUCCESSFUL");
}

void PlugIn::probePrint(BAS::String const& value) {
    bool const console = value.upper() == "NULL";
    if (!guarded([&] { return cacheManagerM->printData(console ? BAS::NULL_STRING : value); })) {
        report("ERR_NUM_PORT_PRINT_DATA", BAS::Status::MAJOR, {value});
        return;
    }
    report(
        "INF_NUM_PORT_PRINT_DATA", BAS::Status::NORMAL,
        {BAS::String::convert(entries()), console ? BAS::String("Console") : BAS::String("File : ") + value});
}

} // namespace DAT::NumberPortability
