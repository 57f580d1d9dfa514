// DAT::NumberPortability::PlugIn: the number-portability data plug-in.
//
// Purpose: answers, for other modules of the process, to which network a telephone number belongs at an instant. The
// framework creates it through the module's entry function, gives it its registry subtree and drives its life cycle:
// construction, init (loads the data, starts the worker), shutdown (stops the worker), destruction.
//
// State against operation:
//   default-constructed   not valid, no data: init and search return false, nothing is touched
//   constructed, invalid  has reported why; init still tries to load, look-ups find what it loaded
//   constructed, valid    look-ups, prints and all that tells of the data find nothing, until the first load has ended
//   initialised           everything is served; a second init returns false and changes nothing (after a load that
//                         failed, or a reload before it, init loads by a reload)
//   shut down             look-ups, registry updates and carryOut go on, probe writes have no effect; shutdown may be
//                         repeated
//   loads stopped         besides one of these: every load fails, init too; the rest goes on
// Destruction without shutdown stops the worker first.
//
// Ownership: the framework owns the plug-in. The plug-in owns its cache manager, its worker thread and its probe group
// with all it holds: the group and the values are classes of this module or refer to it, so nobody could free them
// later. getInstrumentationProbe lends the group until the plug-in's destruction.
//
// Threads: construction, init and destruction by one thread at a time; readRegistry and evalEnvironment belong to the
// construction and may not be called beside anything else; everything else from any thread, also during init. Loads
// (of init, of updates and of the worker), examine and visitFile are serialised by loadLockM, which is held for a whole
// load with its file check, its reports and its counts; search, isUsable and probe writes never wait for it. Events are
// sent after it is released, on the thread that carried out the load; their receiver may command loads, but must not
// shut down or destroy the plug-in. What examine and visitFile call back, and the log, must not load.
//
// Errors: nothing is thrown to the caller by a virtual operation, a load or the entry functions, which return null when
// memory runs out. Failures are reported to the log; running out of memory is "ERR_OUT_OF_MEMORY", severity 5, and
// leaves the data that were live. From search, describeMany and explain std::bad_alloc travels, without a report: false
// and an empty list mean that nothing is stored, and the caller, who has that memory to give, must be able to tell.
//
// Complexity: search as in NumberPortabilityTree.h, plus reading under the cache manager's lock.
//
// Across shared objects: client modules must be built with the same compiler family and standard library as the
// module; texts and records are passed as C++ objects.
#pragma once

#include "cache/DataSummary.h"
#include "cache/LoadProgress.h"
#include "cache/ServiceStatus.h"
#include "framework/BAS/InstrumentationProbeGroup.h"
#include "framework/BAS/Thread.h"
#include "framework/PLG/DataPlugIn.h"
#include "framework/STR/FileIoTurbo.h"
#include "plugin/RequestGate.h"
#include "store/LookUpDetail.h"
#include "store/NumberPortabilityData.h"

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <span>

namespace DAT::NumberPortability {

class CacheManager;

class __attribute__((visibility("default"))) PlugIn : public PLG::DataPlugIn {
  public:
    // What a probe asks the worker for.
    enum ProbeMode : std::uint32_t { RELOAD_PROBE = 0, DELTA_LOAD_PROBE = 1, PRINT_DATA_PROBE = 2 };

    static BAS::String const registryFileNameCM;
    static BAS::String const registryCountryCodeCM;
    static BAS::String const registryNationalAccessCodeCM;
    static BAS::String const registryInternationalAccessCodeCM;
    static BAS::String const registryInternationalAccessCodeSignCM;
    static BAS::String const registrySearchMethodCM;
    static BAS::String const registryReloadCM;
    static BAS::String const registryAdditionalNumPortDataCM;
    static BAS::String const registryPrintDataCM;
    static BAS::String const registryReuseOnFailureCM;
    static BAS::String const defaultInternationalAccessCodeCM;
    static BAS::String const defaultInternationalAccessCodeSignCM;
    static constexpr std::uint32_t defaultSearchMethodCM = 0;
    static constexpr std::uint32_t numberOfColumnsCM = 3;
    static constexpr bool defaultReuseOnFailureCM = true;

    // Reports "ERR_OBJ_NOT_INITIALIZED"; such a plug-in is never valid.
    PlugIn();
    // Reads the registry subtree named `name`, checks the data file, asks for the event handler, builds the probes.
    // isValid() tells whether all of it succeeded. The second string goes to the base.
    PlugIn(BAS::String const& name, BAS::String const& second);
    ~PlugIn() override;

    bool isUsable() override;
    void getInstrumentationProbe(BAS::InstrumentationProbeList& list) const override;
    bool readRegistry() override;
    bool evalEnvironment() override;
    // False when the update was refused or its load failed without data to go on with; of a listing that failed the
    // reports tell, and false only where they could not be made.
    bool registryUpdate(BAS::RegistryEntry const* update, BAS::ProtectedBool& updateHandled) override;
    bool init() override;
    bool shutdown() override;

    // The record valid at `at` by the configured search method. The number must be in stored form. False, and `out`
    // unchanged, when there is none. Throws std::bad_alloc, with `out` unchanged; a number of up to 32 digits and a
    // network of up to seven characters need no memory.
    bool search(BAS::String const& number, BAS::DateTime const& at, NumberPortabilityData& out);
    // The same by a search method of the caller's: 0 best match, 1 exact, any other shortest prefix.
    bool search(BAS::String const& number, BAS::DateTime const& at, NumberPortabilityData& out, unsigned int method);

    // Many look-ups at once, of any number, with the same answers as one at a time: found[i] tells whether records[i]
    // was filled in. The four spans are of one length. Up to 256 look-ups in a row see the same data. Throws
    // std::bad_alloc, and is false ("ERR_UNEXPECTED") for spans of different lengths: what is in records and found then
    // means nothing.
    bool search(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                std::span<NumberPortabilityData> records, std::span<bool> found);
    bool search(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                std::span<NumberPortabilityData> records, std::span<bool> found, unsigned int method);

    // Many look-ups at once, with what there is to know around each: details[i] is filled in for numbers[i] at
    // instants[i], all of it from the same data. Otherwise as the above; the three spans are of one length.
    bool describeMany(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                      std::span<LookUpDetail> details);
    bool describeMany(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                      std::span<LookUpDetail> details, unsigned int method);

    // Rewrites a number into stored form by the configured dialling codes.
    void normalize(BAS::String& number) const;

    // Prints the live data, with or without the heading; what the stream throws travels.
    void print(std::ostream& out, bool header);

    // Reads a data file as a load would, without serving it. False when it cannot be read to its end. Loads wait for
    // it, look-ups do not. `goOn` may be empty.
    bool examine(BAS::String const& fileName, DataSummary& summary, RejectObserver const& onReject, GoOn const& goOn);

    // From here on a load of the named file takes place only while the file is of this version, from its opening to its
    // last line; otherwise it fails with "ERR_FILE_CHANGED", and the live data stay. One file at a time, until
    // expectAnyFile. The data file is named as in serviceStatus.
    void expectFile(BAS::String const& fileName, STR::FileVersion const& version);
    void expectAnyFile();

    // Does at once, on the calling thread, what a write of `value` to the mode's probe has the worker do, with the same
    // reports, events and locks, and returns whether it succeeded. What is posted to the worker stays posted.
    bool carryOut(ProbeMode mode, BAS::String const& value);

    // Ends the load under way, if there is one, and refuses every later one: loads, reloads, delta loads, examine and
    // visitFile then fail with "ERR_LOADS_STOPPED" (severity 4, the file), whoever commands them. From any thread and
    // from signal handlers, until the plug-in's destruction begins; it waits for nothing, and there is no way back. A
    // load that is broken off leaves what is live as it is, after a first load nothing. One whose data are live already
    // succeeds, and a delta load finishes the main data file. visitUpcoming ends, too; look-ups and prints go on.
    void stopLoads();

    // The stored keys that are prefixes of the number, longest first, with their histories. Throws std::bad_alloc.
    std::vector<StoredPrefix> explain(BAS::String const& number);

    // Shows every line of the named file as a load would take it, without serving it. False when it cannot be read to
    // its end. Waits for loads, as they wait for it.
    bool visitFile(BAS::String const& fileName, LineVisitor const& visit);

    // Shows the live records that are valid from later than `after`, by number, then newest first, and since when the
    // data are live. Look-ups go on, the exchange of a reload waits; `visit` must not call the plug-in. False when
    // memory ran out or `visit` threw, and after stopLoads, which ends it at the next number.
    bool visitUpcoming(BAS::DateTime const& after, BAS::DateTime& liveSince, RecordVisitor const& visit);

    // How the plug-in stands. Waits for no load and no print.
    ServiceStatus serviceStatus();

    // How far the present load has come; null for a default-constructed plug-in. Valid as long as the plug-in.
    LoadProgress const* progress() const;

    // File checks: report the outcome and return whether the file opens for reading. The first checks the data file
    // and keeps the outcome for isUsable; the second leaves an additional file open until its load is over.
    bool checkFile();
    bool checkFile(BAS::String const& fileName);

    // The request gate, and nothing else: not a lock for look-ups, which need none.
    void lock();
    void unLock();

  private:
    // The values of the three probes: each only posts a request of its mode; reading one yields nothing.
    template <ProbeMode>
    class ProbeValue;
    using ReloadProbeValue = ProbeValue<RELOAD_PROBE>;
    using AdditionalNumPortDataValue = ProbeValue<DELTA_LOAD_PROBE>;
    using PrintDataProbeValue = ProbeValue<PRINT_DATA_PROBE>;

    struct Request {
        ProbeMode mode;
        BAS::String value;
    };

    // A load under loadLockM, with its file check: runs it and keeps its outcome for serviceStatus.
    template <class Load>
    bool recorded(LoadOutcome::Kind kind, BAS::String const& fileName, Load&& load) NP_REQUIRES(loadLockM);

    // Runs an action and turns whatever it throws, but std::bad_alloc, into a report and false.
    template <class Action>
    bool shielded(Action&& action);
    // The same, without exception.
    template <class Action>
    bool guarded(Action&& action) noexcept;
    // Makes a report, whose failing does not change the outcome that it tells.
    template <class Report>
    void reported(Report&& make) noexcept;
    void report(BAS::String const& identifier, BAS::Status::Severity severity, BAS::Status::Arguments const& arguments);
    void sendEvent(char const* event);
    BAS::String keyPath(BAS::String const& key) const;
    std::uint32_t entries();

    bool configure();
    bool askForEventHandler();
    bool readKeys();
    bool readMandatory(BAS::RegistryEntry const& subtree, BAS::String const& key, BAS::String& value);
    bool readSearchMethod(BAS::RegistryEntry const& subtree);
    struct Opening {
        bool called; // the reader's open succeeded
        bool opens;  // and it holds an open file
    };
    Opening tryOpen(BAS::String const& fileName, bool keepOpen);
    bool reportOpening(Opening const& opening, BAS::String const& fileName);
    void closeCheckedFile();

    void startWorker();
    bool loadData();
    bool reloadForUpdate(bool reuse);
    bool deltaLoadForUpdate(BAS::String const& fileName);
    bool updateReload(BAS::RegistryEntry const& update, BAS::ProtectedBool& updateHandled);
    bool updateDeltaLoad(BAS::String const& fileName);
    bool updatePrint(BAS::String const& target);
    bool readReuseFlag(BAS::RegistryEntry const& update, bool& reuse);

    bool initInstrumentationProbe();
    void setProbeName(ProbeMode const& mode) NP_REQUIRES(requestDataLockM);
    void setProbeValue(BAS::String const& value) NP_REQUIRES(requestDataLockM);
    void post(ProbeMode mode, BAS::String const& value);
    bool takeRequest(Request& request);
    void run();
    void stopWorker();
    bool probeReload(BAS::String const& value);
    bool probeDeltaLoad(BAS::String const& fileName);
    bool probePrint(BAS::String const& value);

    // Set during construction only.
    BAS::String fileNameM;
    BAS::String countryCodeM;
    BAS::String nationalAccessCodeM;
    BAS::String internationalAccessCodeM;
    BAS::String internationalAccessCodeSignM;
    BAS::String eventHandlerNameM;

    STR::FileIoTurbo fileIoM NP_GUARDED_BY(fileLockM);   // only tests that files open
    std::atomic<bool> fileOkM{false};                    // outcome of the last check of the data file
    std::uint32_t searchMethodM = defaultSearchMethodCM; // set during construction only
    std::unique_ptr<CacheManager> cacheManagerM;         // refers to the four codes above

    // The latest posted request; its mode and value are not cleared when it has been carried out.
    ProbeMode probeModeM NP_GUARDED_BY(requestDataLockM) = RELOAD_PROBE;
    BAS::String probeValueM NP_GUARDED_BY(requestDataLockM);
    bool requestPendingM NP_GUARDED_BY(requestDataLockM) = false; // posted and not yet taken by the worker
    std::unique_ptr<BAS::InstrumentationProbeGroup> probeGroupM;

    RequestGate requestLockM;
    std::unique_ptr<BAS::Thread> workerThreadM NP_GUARDED_BY(workerLockM); // once made it stays until destruction
    std::atomic<bool> stopRequestedM{false};

    bool loadingM NP_GUARDED_BY(outcomeLockM) = false;
    LoadOutcome lastLoadM NP_GUARDED_BY(outcomeLockM);
    std::uint64_t loadsM NP_GUARDED_BY(outcomeLockM) = 0;
    bool loadTriedM NP_GUARDED_BY(loadLockM) = false;   // there has been a load, with or without success
    bool initialisedM NP_GUARDED_BY(loadLockM) = false; // init has loaded the data
    BAS::Mutex workerLockM;                             // held for a moment, with no other but the gate's
    // Taken in this order, the later ones for a moment each.
    BAS::Mutex loadLockM;
    BAS::Mutex fileLockM;
    BAS::Mutex outcomeLockM;
    BAS::Mutex requestDataLockM; // mode and value of a request go together
};

} // namespace DAT::NumberPortability
