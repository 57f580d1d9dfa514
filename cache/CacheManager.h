// DAT::NumberPortability::CacheManager: holds the portability data and keeps them current while look-ups go on.
//
// Purpose: owns two trees that hold the same records between operations. Look-ups, counts and prints read the active
// one. A reload or a delta load fills the standby one, exchanges the two, and brings the other to the same state by
// parsing the same lines again; after a delta load the merged data replace the main data file, or its content where it
// cannot be replaced.
//
// Ownership: owns both trees (always two distinct objects), the readers and the lock. The plug-in and the four dialling
// codes are borrowed: the plug-in owns the cache manager and outlives it, the codes never change after construction.
//
// Threads:
// - load, cacheReload, cacheDeltaLoad, examine and visitFile: one at a time, the caller sees to it. Only the thread
//   that runs one of them, the loading thread, touches the standby tree and the readers.
// - search, describeMany, numOfEntries, print, printData, explain, visitUpcoming and describe: any thread, at any time. Until the
//   first load has ended they find nothing.
// - stopLoads: any thread, at any time, and signal handlers.
// - treeLockM guards which tree is active. Look-ups hold it as short readers, prints as long readers, the exchange
//   and the count as writers; RWReadersWriterLock.h says how long each can wait. No report is made and no tree is
//   filled or freed under it.
//
// Errors: operations return false as said below and report through the plug-in. Bad lines are reported and skipped,
// once per tree that they are parsed into: twice in a load that is adopted. std::bad_alloc travels: the active tree
// then still serves what it served, or the new data if the exchange was done, and the standby tree is repaired before
// it is used again.
//
// After stopLoads a load ends within some thousand lines or records with "ERR_LOADS_STOPPED" (severity 4, the file) and
// false, and changes nothing that is live; later ones end so at once. Only what is live already goes on: a delta load
// finishes the main file, and either kind leaves the standby tree empty and ends with success.
//
// Complexity: loads are linear in the file and hold every record twice and, for the time of a reload, every line once.
#pragma once

#include "cache/DataSummary.h"
#include "cache/DiallingCodes.h"
#include "cache/LoadProgress.h"
#include "cache/LoadStop.h"
#include "cache/RecordParser.h"
#include "cache/ServiceStatus.h"
#include "cache/TreeFilling.h"
#include "framework/BAS/Status.h"
#include "framework/RW/RWReadersWriterLock.h"
#include "framework/STR/FileIoTurbo.h"
#include "store/NumberPortabilityTree.h"

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace DAT::NumberPortability {

class LineStore;
class PlugIn;

class CacheManager {
  public:
    // Copies the file name, binds the codes, creates two empty trees.
    CacheManager(PlugIn* plugIn, BAS::String const& nationalAccessCode, BAS::String const& internationalAccessCode,
                 BAS::String const& countryCode, BAS::String const& internationalAccessCodeSign,
                 unsigned int numberOfColumns, BAS::String const& dataFileName);
    // Without codes, columns and trees, for a plug-in that never serves: loads, look-ups and line parsing fail.
    explicit CacheManager(PlugIn* plugIn);
    CacheManager(CacheManager const&) = delete;
    CacheManager& operator=(CacheManager const&) = delete;
    virtual ~CacheManager();

    // First load of the main data file, into both trees. Look-ups find nothing until it ends. False when the file check
    // fails or a read error ends the file early ("ERR_FILE_READ_ERR"); what was read then is served.
    bool load();

    // Full reload of the main data file. False, with the old data still active, when the file check fails, when a
    // read error ends the file early, or when `reuseOnFailure` is false and the new data count as failed: the last
    // line decides, rejected for its form or not, and a file without lines counts as failed. False with the new data
    // active when the file does not close ("ERR_CLOSE_NP_FILE").
    bool cacheReload(bool const& reuseOnFailure);

    // Adds the named file's records and replaces the main data file by the merged data. False when the file check
    // fails or a read error ends the file early (nothing is then adopted or written), when the main file has never been
    // read to its end ("ERR_MAIN_DATA_NOT_LOADED": rewriting would lose what is in it), and when the main reader does
    // not close. That the main file could not be written is told to the framework's log and by describe, and not by the
    // result; that it had to be overwritten in place is reported ("INF_FILE_WRITTEN_IN_PLACE").
    bool cacheDeltaLoad(BAS::String const& fileName);

    // Reads a data file as a load would, into a tree of its own that nobody searches. False when the file check fails
    // or a read error ends the file early; the summary then covers what was read, and after a stop it means nothing.
    // `mayGoOn` may be empty; when it ends the examination, the summary covers what was read, too.
    bool examine(BAS::String const& fileName, DataSummary& summary, RejectObserver const& onReject,
                 GoOn const& mayGoOn);

    // From here on a load of the named file (as the load names it) takes place only while the file is of this version,
    // from its opening to its last line; otherwise it fails with "ERR_FILE_CHANGED" and the live data stay. One file
    // at a time, until expectAnyFile. Any thread.
    void expectFile(BAS::String const& fileName, STR::FileVersion const& version);
    void expectAnyFile();

    // Shows every line of the named file as a load would take it, in the file's order, and keeps nothing. False when
    // the file check fails or a read error ends the file early. What `visit` throws travels.
    bool visitFile(BAS::String const& fileName, LineVisitor const& visit);

    // Ends the load under way and refuses every later one, examine and visitFile included; waits for nothing.
    void stopLoads() noexcept { loadStopM.stop(); }

    // Parses one line into `tree` and reports what is wrong with it under the reader's file name. False when the line
    // was rejected for its form; true when it was inserted, and also when it was a duplicate.
    bool insertCache(NumberPortabilityTree* tree, BAS::String const& line, unsigned long number, bool ordered,
                     STR::FileIoTurbo& reader);

    // Rewrites a number into stored form (see DiallingCodes). On std::bad_alloc the number is unchanged.
    void normalize(BAS::String& number) const;

    // Look-up in the active tree (see NumberPortabilityTree); the number is not normalised.
    bool search(BAS::String const& number, BAS::DateTime const& at, NumberPortabilityData& out, unsigned int method);

    // Many look-ups at once, of any number; the four spans are of one length. Up to batchSizeCM of them are made under
    // one read lock and so see the same data; a longer batch gives writers their turn in between.
    static constexpr std::size_t batchSizeCM = 256;
    void search(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                std::span<NumberPortabilityData> records, std::span<bool> found, unsigned int method);

    // The same with what there is to know around each look-up (see NumberPortabilityTree); the three spans are of one
    // length. What is told of one number is of the same data.
    void describeMany(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                      std::span<LookUpDetail> details, unsigned int method);

    // Records in the active tree. Waits for the prints of that moment, but not after stopLoads.
    std::uint32_t numOfEntries();

    // Prints the active tree with the heading to the console (empty target) or to the named file. Always true; a file
    // that cannot be written is told to the framework's log.
    bool printData(BAS::String const& target);

    // Prints the active tree to a stream. The exchange of a reload waits for it, look-ups do not.
    void print(std::ostream& out, bool header);

    // The stored keys that are prefixes of the number, longest first, with their histories: what a look-up chooses
    // from.
    std::vector<StoredPrefix> explain(BAS::String const& number);

    // Shows the live records that are valid from later than `after`, in the listing's order, and returns since when the
    // data are live. Holds the tree lock like a print: `visit` must not call back, but for stopLoads, which ends the
    // visit: LoadStop::Stopped.
    BAS::DateTime visitUpcoming(BAS::DateTime after, RecordVisitor const& visit);

    // Fills in what the cache manager knows: counts of the live data, when they went live, look-ups served. Holds the
    // tree lock like a look-up.
    void describe(ServiceStatus& status);

    // Forgets what the latest load read and rejected. For the loading thread.
    void beginLoad();

    // Lines read by the latest load, and what they were. For the loading thread.
    std::uint64_t linesRead() const { return progressM.lines(); }
    LineCounts const& lineCounts() const { return loadingM.counts; }

    LoadProgress const& progress() const { return progressM; }

  private:
    // How the reading of a file ended.
    enum class ReadEnd { END_AT_READ, END_BEFORE_READ, ERROR };

    // Hands every line of the open reader to take(line). The one reading loop of all loads.
    template <class Take>
    ReadEnd readLines(STR::FileIoTurbo& reader, Take&& take);

    DiallingCodes codes() const {
        return {nationalAccessCodeM, internationalAccessCodeM, countryCodeM, internationalAccessCodeSignM};
    }
    // What fills trees with lines of the reader's file.
    TreeFilling::Means means(STR::FileIoTurbo const& reader) const {
        return {codes(), numberOfColumnsM, LineReporter(*plugInM, codes(), reader), loadStopM};
    }

    // Calls look(tree, begin, count) for each part of a batch of look-ups, under a read lock of its own.
    template <class Look>
    void inParts(std::size_t size, Look&& look);

    // Runs a load, with the report that is due when it was stopped.
    template <class Load>
    bool unlessStopped(BAS::String const& fileName, Load&& load);
    // Runs what fills the standby tree, which it leaves as the active one or marked as incomplete.
    template <class Load>
    bool usingStandby(Load&& load);

    // Makes a report behind a load's outcome, which it does not change.
    template <class Report>
    static void tell(Report&& make) noexcept;

    bool firstLoad();
    bool endLoad(ReadEnd end);
    void noteCounts(LineCounts const& counts, STR::FileIoTurbo const& reader);
    ReadEnd fillStandby(LineStore& lines, STR::FileIoTurbo& reader, bool& lastAccepted);
    bool reload(bool reuseOnFailure);
    bool deltaLoad(BAS::String const& fileName);
    void reopen(STR::FileIoTurbo& reader, BAS::String const& fileName);
    bool readError(STR::FileIoTurbo const& reader);
    bool isMainFileLoaded();
    bool isExpected(STR::FileIoTurbo const& reader);
    bool examineFile(BAS::String const& fileName, DataSummary& summary, RejectObserver const& onReject,
                     GoOn const& mayGoOn);
    bool visitLines(BAS::String const& fileName, LineVisitor const& visit);
    void putLive(std::unique_ptr<NumberPortabilityTree>& tree);
    void refillStandby(LineStore& lines, STR::FileIoTurbo& reader);
    void restoreStandby();
    void abandonStandby() noexcept;
    void rewriteMainFile();
    void noteMainFile(bool saved, STR::FileVersion const& version);
    bool closeReader(STR::FileIoTurbo& reader);
    void report(char const* identifier, BAS::Status::Severity severity, BAS::String const& argument);

    // For the loading thread, the only one that ever exchanges the trees.
    NumberPortabilityTree& active() NP_NO_THREAD_SAFETY_ANALYSIS { return *activeTreeM; }

    // These twelve have their order from the system.

    // The constructor's, and constant from then on: any thread reads it.
    BAS::String dataFileNameM;
    // The loading thread's: closed by a load that went well, and otherwise by the next one.
    STR::FileIoTurbo dataFileIoM;
    STR::FileIoTurbo deltaFileIoM;
    // The plug-in's texts, constant from the constructor on: any thread reads them.
    BAS::String const& nationalAccessCodeM;
    BAS::String const& internationalAccessCodeM;
    BAS::String const& countryCodeM;
    BAS::String const& internationalAccessCodeSignM;
    std::uint32_t const numberOfColumnsM;
    // The constructor decides whether there are trees. Only the loading thread exchanges them, so it may look at the
    // active one without the lock.
    std::unique_ptr<NumberPortabilityTree> activeTreeM NP_GUARDED_BY(treeLockM);
    // The loading thread's: nobody else ever sees it.
    std::unique_ptr<NumberPortabilityTree> standbyTreeM;
    RWReadersWriterLock treeLockM;
    PlugIn* const plugInM;

    // Changes with the active tree.
    BAS::DateTime liveSinceM NP_GUARDED_BY(treeLockM);
    std::uint64_t epochM NP_GUARDED_BY(treeLockM) = 0;

    // The loading thread's, from one load to the next.
    struct Loading {
        bool standbyComplete = true; // the standby tree holds the active tree's records
        bool mainFileRead = false;   // the main file has been read to its end
        LineCounts counts;           // of the first parse of the latest load's lines
    };
    Loading loadingM;

    // Written by the loading thread, read by who asks how the plug-in stands.
    struct MainFile {
        BAS::Mutex lock;
        STR::FileVersion version NP_GUARDED_BY(lock); // as it was loaded or last written
        bool unsaved NP_GUARDED_BY(lock) = false;     // records are served that are not in it
    };
    MainFile mainFileM;

    // Written by who checks files before they are loaded, read by the loading thread.
    struct Expectation {
        struct File {
            BAS::String name;
            STR::FileVersion version;
        };
        BAS::Mutex lock;
        std::optional<File> file NP_GUARDED_BY(lock);
    };
    Expectation expectationM;

    // Short reads that are no look-ups: one at a time and held for its length, so that every one counted has ended.
    struct OtherReads {
        BAS::Mutex lock;
        std::uint64_t count NP_GUARDED_BY(lock) = 0;
    };
    OtherReads otherReadsM;

    // Any thread's, without a lock: the loading thread counts, whoever ends loads raises the flag.
    LoadProgress progressM;
    LoadStop loadStopM;
};

} // namespace DAT::NumberPortability
