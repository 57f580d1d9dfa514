// Life cycle, look-ups, and what the cache manager asks of its plug-in.
#include "plugin/PlugIn.h"

#include "cache/CacheManager.h"
#include "cache/OwnerServices.h"
#include "plugin/Guarded.h"

#include <utility>

namespace DAT::NumberPortability {

// Without a cache manager, for good: every operation asks for it first.
PlugIn::PlugIn() {
    report("ERR_OBJ_NOT_INITIALIZED", BAS::Status::CRITICAL, {"DAT::NumberPortability::PlugIn"});
    setValid(false);
}

PlugIn::PlugIn(BAS::String const& name, BAS::String const& second) : PLG::DataPlugIn(name, second) {
    // A step that fails leaves the plug-in invalid and skips those behind it, which need what it was to give. The cache
    // manager is made in any case: an invalid plug-in may still be told to load, and has something to search then.
    setValid(isRegistered());
    if (isValid())
        setValid(shielded([this] { return configure(); }));
    cacheManagerM = std::make_unique<CacheManager>(this, nationalAccessCodeM, internationalAccessCodeM, countryCodeM,
                                                   internationalAccessCodeSignM, numberOfColumnsCM, fileNameM);
    if (isValid())
        setValid(askForEventHandler());
    if (isValid())
        setValid(initInstrumentationProbe());
}

PlugIn::~PlugIn() {
    // A worker that was never shut down must have ended before anything that it uses goes.
    PlugIn::shutdown();
    {
        BAS::MutexGuard const guard(workerLockM);
        workerThreadM.reset();
    }
    // A destructor may report, but nothing that the report throws may leave it.
    guarded([this] {
        closeCheckedFile();
        return true;
    });
    unLock();
    // It refers to the codes, which are members and go after it.
    cacheManagerM.reset();
}

bool PlugIn::isUsable() {
    BAS::MutexGuard const guard(usableLockM);
    return isValid() && fileOkM.load();
}

bool PlugIn::init() {
    return guarded([this] {
        // Before everything else, so that a start that fails shows as one that was tried.
        report("INF_LOAD_DATA", BAS::Status::NORMAL, {name()});
        if (cacheManagerM == nullptr)
            return false;
        startWorker();
        return loadData();
    });
}

void PlugIn::startWorker() {
    BAS::MutexGuard const guard(workerLockM);
    if (workerThreadM != nullptr) // a repeated init finds it waiting at the gate
        return;
    auto worker = std::make_unique<BAS::Thread>(nullptr);
    // Closed before the worker runs: its first pass must wait, and the gate is made open.
    lock();
    try {
        worker->start([this] { run(); });
    } catch (...) {
        unLock(); // for the next init
        throw;
    }
    // Only a worker that runs is kept: the next init takes one that is there for it.
    workerThreadM = std::move(worker);
}

bool PlugIn::loadData() {
    BAS::MutexGuard const guard(loadLockM);
    if (initialisedM)
        return false;
    // Look-ups may have begun after another load, and the first load is not made to run beside them.
    bool const first = !loadTriedM;
    // A reload takes the new data whatever their last line is, as a first load does.
    if (!recorded(LoadOutcome::LOAD, fileNameM,
                  [&](CacheManager& cache) { return first ? cache.load() : cache.cacheReload(true); }))
        return false;
    initialisedM = true;
    reported([this] { report("INF_NUM_NPORT_LOADED", BAS::Status::NORMAL, {BAS::String::convert(entries())}); });
    return true;
}

bool PlugIn::shutdown() {
    guarded([this] {
        stopWorker();
        return true;
    });
    return true;
}

void PlugIn::stopWorker() {
    // Before the gate opens: the worker looks at the flag right behind it.
    stopRequestedM.store(true);
    BAS::Thread* worker = nullptr;
    {
        BAS::MutexGuard const guard(workerLockM); // an init that makes the worker closes the gate under it
        unLock();
        worker = workerThreadM.get();
    }
    // Outside the lock, because it waits for a load that the worker carries out.
    if (worker != nullptr)
        worker->stop();
}

void PlugIn::lock() {
    requestLockM.close();
}

void PlugIn::unLock() {
    requestLockM.open();
}

bool PlugIn::search(BAS::String const& number, BAS::DateTime const& at, NumberPortabilityData& out) {
    return search(number, at, out, searchMethodM);
}

bool PlugIn::search(BAS::String const& number, BAS::DateTime const& at, NumberPortabilityData& out,
                    unsigned int method) {
    // shielded and not guarded: want of memory travels, since false would mean that nothing is stored.
    return cacheManagerM != nullptr && shielded([&] { return cacheManagerM->search(number, at, out, method); });
}

bool PlugIn::search(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                    std::span<NumberPortabilityData> records, std::span<bool> found) {
    return search(numbers, instants, records, found, searchMethodM);
}

bool PlugIn::search(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                    std::span<NumberPortabilityData> records, std::span<bool> found, unsigned int method) {
    return cacheManagerM != nullptr && shielded([&] {
               cacheManagerM->search(numbers, instants, records, found, method);
               return true;
           });
}

bool PlugIn::describeMany(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                          std::span<LookUpDetail> details) {
    return describeMany(numbers, instants, details, searchMethodM);
}

bool PlugIn::describeMany(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                          std::span<LookUpDetail> details, unsigned int method) {
    return cacheManagerM != nullptr && shielded([&] {
               cacheManagerM->describeMany(numbers, instants, details, method);
               return true;
           });
}

void PlugIn::normalize(BAS::String& number) const {
    if (cacheManagerM != nullptr)
        cacheManagerM->normalize(number);
}

void PlugIn::print(std::ostream& out, bool header) {
    if (cacheManagerM != nullptr)
        cacheManagerM->print(out, header);
}

// The inner guard sees to it that the checked file is closed, whatever became of the reading.
bool PlugIn::examine(BAS::String const& fileName, DataSummary& summary, RejectObserver const& onReject,
                     GoOn const& goOn) {
    return cacheManagerM != nullptr && guarded([&] {
               BAS::MutexGuard const guard(loadLockM);
               bool const examined = guarded([&] { return cacheManagerM->examine(fileName, summary, onReject, goOn); });
               closeCheckedFile();
               return examined;
           });
}

void PlugIn::expectFile(BAS::String const& fileName, STR::FileVersion const& version) {
    if (cacheManagerM != nullptr)
        cacheManagerM->expectFile(fileName, version);
}

void PlugIn::expectAnyFile() {
    if (cacheManagerM != nullptr)
        cacheManagerM->expectAnyFile();
}

void PlugIn::stopLoads() {
    if (cacheManagerM != nullptr)
        cacheManagerM->stopLoads();
}

std::vector<StoredPrefix> PlugIn::explain(BAS::String const& number) {
    std::vector<StoredPrefix> prefixes;
    shielded([&] {
        if (cacheManagerM != nullptr)
            prefixes = cacheManagerM->explain(number);
        return true;
    });
    return prefixes;
}

bool PlugIn::visitFile(BAS::String const& fileName, LineVisitor const& visit) {
    return cacheManagerM != nullptr && guarded([&] {
               BAS::MutexGuard const guard(loadLockM);
               bool const complete = guarded([&] { return cacheManagerM->visitFile(fileName, visit); });
               closeCheckedFile();
               return complete;
           });
}

bool PlugIn::visitUpcoming(BAS::DateTime const& after, BAS::DateTime& liveSince, RecordVisitor const& visit) {
    return cacheManagerM != nullptr && guarded([&] {
               try {
                   liveSince = cacheManagerM->visitUpcoming(after, visit);
                   return true;
               } catch (LoadStop::Stopped const&) { // whoever stopped it knows
                   return false;
               }
           });
}

ServiceStatus PlugIn::serviceStatus() {
    ServiceStatus status;
    // Two parts, of two moments: a load may be told as ended beside the figures of the data before it.
    status.usable = isUsable();
    status.searchMethod = searchMethodM;
    guarded([&] {
        if (cacheManagerM != nullptr)
            cacheManagerM->describe(status);
        BAS::MutexGuard const guard(outcomeLockM);
        status.loading = loadingM;
        status.lastLoad = lastLoadM;
        status.loads = loadsM;
        return true;
    });
    return status;
}

LoadProgress const* PlugIn::progress() const {
    return cacheManagerM == nullptr ? nullptr : &cacheManagerM->progress();
}

// Waits for a print, as an exchange does. So it is never called under another lock than that of loads.
std::uint32_t PlugIn::entries() {
    return cacheManagerM == nullptr ? 0 : cacheManagerM->numOfEntries();
}

void PlugIn::report(BAS::String const& identifier, BAS::Status::Severity severity,
                    BAS::Status::Arguments const& arguments) {
    setStatus(identifier, severity, arguments, true);
}

// What a receiver throws is its own business, and must not change what the plug-in does next.
void PlugIn::sendEvent(char const* event) {
    guarded([&] { return sendMessage(BAS::Message(name(), eventHandlerNameM, event, BAS::NULL_STRING)); });
}

namespace OwnerServices {

bool checkFile(PlugIn& plugIn) {
    return plugIn.checkFile();
}

bool checkFile(PlugIn& plugIn, BAS::String const& fileName) {
    return plugIn.checkFile(fileName);
}

void report(PlugIn& plugIn, BAS::String const& identifier, BAS::Status::Severity severity,
            BAS::Status::Arguments const& arguments) {
    plugIn.setStatus(identifier, severity, arguments, true);
}

BAS::String name(PlugIn const& plugIn) {
    return plugIn.name();
}

} // namespace OwnerServices

} // namespace DAT::NumberPortability
