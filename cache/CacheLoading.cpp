// Load, reload and delta load: build in the standby tree outside the lock, exchange inside it, refill outside it.
#include "cache/CacheManager.h"
#include "cache/LineStore.h"
#include "cache/OwnerServices.h"
#include "cache/TreeFilling.h"
#include "framework/STR/FileIo.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace DAT::NumberPortability {

namespace {

// A second walk over the tree and not counts kept during the load: a load has no use for them, and would pay.
template <class Between>
void summarise(NumberPortabilityTree const& tree, DataSummary& summary, Between&& between) {
    constexpr std::size_t inPlace = 7;    // a longer network of one among several records has a text of its own
    constexpr std::size_t heapBytes = 32; // that the allocator adds at the most
    summary.treeBytes = tree.bytes();
    std::unordered_map<std::string, unsigned long> networks;
    tree.visit([&](BAS::String const&, NumberPortabilityTree::History const& history) {
        between();
        bool isFirst = ++summary.numbers == 1;
        std::uint32_t const length = history.length();
        history.each([&](NumberPortabilityData const& record) {
            std::string const network = record.networkIdM.c_str();
            summary.treeBytes += length > 1 && network.size() > inPlace ? network.size() + heapBytes : 0;
            ++networks[network];
            if (std::exchange(isFirst, false) || record.validFromM > summary.latest)
                summary.latest = record.validFromM;
            // An invalid instant is later than every valid one.
            summary.earliest = std::min(summary.earliest, record.validFromM);
            return true;
        });
    });
    for (auto const& [network, records] : networks)
        summary.networks.emplace_back(BAS::String(network), records);
    std::sort(summary.networks.begin(), summary.networks.end(), [](auto const& left, auto const& right) {
        return left.second != right.second ? left.second > right.second : left.first < right.first;
    });
}

} // namespace

template <class Take>
CacheManager::ReadEnd CacheManager::readLines(STR::FileIoTurbo& reader, Take&& take) {
    // Every load goes through here, so that a full one and a delta cannot come to differ in what they take for a line.
    // The end of the file is asked of the stream, before a read and after: which of the two shows it is reported.
    progressM.start(reader.fileSize());
    if (!reader.isOpen()) // it has gone since the file check
        return ReadEnd::ERROR;
    std::string_view line;
    while (std::feof(reader.stream()) == 0) {
        bool const read = reader.readLine(line);
        if (std::feof(reader.stream()) != 0)
            return ReadEnd::END_AT_READ;
        if (!read)
            return ReadEnd::ERROR;
        // Before the line is taken: what stops or throws there then finds the count of lines as it was read.
        progressM.addLine(line.length() + 1);
        loadStopM.goOn();
        take(line);
    }
    return ReadEnd::END_BEFORE_READ;
}

// What the latest load read and rejected is nothing yet, also when its file check fails.
void CacheManager::beginLoad() {
    progressM.start(0);
    loadingM.counts = {};
}

template <class Load>
bool CacheManager::unlessStopped(BAS::String const& fileName, Load&& load) {
    try {
        // Also at the beginning: a load that comes after the stop must not even check its file.
        loadStopM.goOn();
        return load();
    } catch (LoadStop::Stopped const&) {
        report("ERR_LOADS_STOPPED", BAS::Status::MAJOR, fileName);
        return false;
    }
}

// What is done stays done, and counts as done, also where memory lacks to report it.
template <class Report>
void CacheManager::tell(Report&& make) noexcept {
    try {
        make();
    } catch (...) { // NOLINT(bugprone-empty-catch): as said
    }
}

template <class Load>
bool CacheManager::usingStandby(Load&& load) {
    try {
        return load();
    } catch (...) { // whatever ended it: the next load must not meet half of it in the standby tree
        abandonStandby();
        throw;
    }
}

bool CacheManager::load() {
    beginLoad();
    return standbyTreeM != nullptr && unlessStopped(dataFileNameM, [this] {
               return OwnerServices::checkFile(*plugInM) && usingStandby([this] { return firstLoad(); });
           });
}

// Neither tree that is being filled is the active one, which other threads may read from the beginning.
bool CacheManager::firstLoad() {
    reopen(dataFileIoM, dataFileNameM);
    if (!isExpected(dataFileIoM))
        return false;
    // Before the first line: a change while the file is read is then seen as one.
    STR::FileVersion const version = dataFileIoM.version();
    loadingM.standbyComplete = false;
    standbyTreeM->clearAndDestroy();
    auto loaded = std::make_unique<NumberPortabilityTree>();
    TreeFilling filling(means(dataFileIoM), *loaded, standbyTreeM.get());
    // Each line goes into both trees from one parse; no lines have to be kept, as a reload must keep them.
    ReadEnd const end = readLines(dataFileIoM, [&](std::string_view line) { filling.add(line); });
    filling.finish();
    noteCounts(filling.counts(), dataFileIoM);
    // A read error is told as one: whether the file has changed as well says nothing to whoever has to mend it.
    if (end != ReadEnd::ERROR && !isExpected(dataFileIoM)) {
        restoreStandby();
        return false;
    }
    putLive(loaded);
    noteMainFile(true, version);
    loadingM.standbyComplete = true;
    // What came before a read error is served, but a delta upon it would rewrite the file without the rest.
    loadingM.mainFileRead = end != ReadEnd::ERROR;
    return endLoad(end);
}

bool CacheManager::endLoad(ReadEnd end) {
    switch (end) {
    case ReadEnd::ERROR:
        return readError(dataFileIoM);
    case ReadEnd::END_AT_READ:
        tell([this] { report("INF_FILE_EOF", BAS::Status::NORMAL, dataFileIoM.fileName()); });
        dataFileIoM.closeFile();
        break;
    case ReadEnd::END_BEFORE_READ:
        dataFileIoM.closeFile();
        tell([this] { report("INF_FILE_CLOSED", BAS::Status::NORMAL, dataFileIoM.fileName()); });
        break;
    }
    return true;
}

bool CacheManager::cacheReload(bool const& reuseOnFailure) {
    beginLoad();
    return standbyTreeM != nullptr && unlessStopped(dataFileNameM, [&] {
               return OwnerServices::checkFile(*plugInM) && usingStandby([&] { return reload(reuseOnFailure); });
           });
}

bool CacheManager::reload(bool reuseOnFailure) {
    reopen(dataFileIoM, dataFileNameM);
    if (!isExpected(dataFileIoM))
        return false;
    STR::FileVersion const version = dataFileIoM.version();
    loadingM.standbyComplete = false;
    standbyTreeM->clearAndDestroy();

    LineStore lines;
    bool lastAccepted = false;
    ReadEnd const end = fillStandby(lines, dataFileIoM, lastAccepted);
    // Asked after the last line and before anything is live: from here on nothing more is read of the file.
    bool const unchanged = end == ReadEnd::ERROR || isExpected(dataFileIoM);
    if (end == ReadEnd::ERROR || !unchanged || (!lastAccepted && !reuseOnFailure)) {
        // A reload that is not adopted is reported by who commanded it; a read error is told here.
        restoreStandby();
        return end == ReadEnd::ERROR && readError(dataFileIoM);
    }

    putLive(standbyTreeM);
    // From here on the load has succeeded, whatever becomes of the standby tree and of the reports.
    loadingM.mainFileRead = true;
    noteMainFile(true, version);
    standbyTreeM->clearAndDestroy();
    refillStandby(lines, dataFileIoM);

    if (!closeReader(dataFileIoM))
        return false;
    tell([this] { report("INF_DELETE_OLD_DATA", BAS::Status::NORMAL, OwnerServices::name(*plugInM)); });
    return true;
}

bool CacheManager::cacheDeltaLoad(BAS::String const& fileName) {
    beginLoad();
    return standbyTreeM != nullptr && unlessStopped(fileName, [&] {
               return OwnerServices::checkFile(*plugInM, fileName) && isMainFileLoaded() &&
                      usingStandby([&] { return deltaLoad(fileName); });
           });
}

bool CacheManager::isMainFileLoaded() {
    if (!loadingM.mainFileRead) // the rewritten main file would lack what was never read from it
        report("ERR_MAIN_DATA_NOT_LOADED", BAS::Status::CRITICAL, dataFileNameM);
    return loadingM.mainFileRead;
}

bool CacheManager::deltaLoad(BAS::String const& fileName) {
    // A delta is read on top of what the standby tree holds, so that must be all that the active one has.
    if (!loadingM.standbyComplete) // an earlier load ran out of memory
        restoreStandby();
    reopen(deltaFileIoM, fileName);
    if (!isExpected(deltaFileIoM))
        return false;
    loadingM.standbyComplete = false;

    LineStore lines;
    bool lastAccepted = false;
    ReadEnd const end = fillStandby(lines, deltaFileIoM, lastAccepted);
    if (end == ReadEnd::ERROR || !isExpected(deltaFileIoM)) {
        restoreStandby();
        return end == ReadEnd::ERROR && readError(deltaFileIoM);
    }

    putLive(standbyTreeM);
    std::exception_ptr failure;
    try {
        refillStandby(lines, deltaFileIoM);
    } catch (...) { // the merged data are live already, so they must reach the main file all the same
        failure = std::current_exception();
        abandonStandby();
    }
    // Even when the load has been stopped: the records stand in no file yet.
    rewriteMainFile();
    if (failure)
        std::rethrow_exception(failure);

    // Open only after a load that failed; what it holds is the file that has just been replaced.
    if (!closeReader(dataFileIoM))
        return false;
    deltaFileIoM.closeFile();
    return true;
}

bool CacheManager::examine(BAS::String const& fileName, DataSummary& summary, RejectObserver const& onReject,
                           GoOn const& mayGoOn) {
    // A check that fails leaves a summary of nothing, not one of the file before.
    summary = DataSummary();
    beginLoad();
    return standbyTreeM != nullptr && unlessStopped(fileName, [&] {
               return OwnerServices::checkFile(*plugInM, fileName) && examineFile(fileName, summary, onReject, mayGoOn);
           });
}

bool CacheManager::examineFile(BAS::String const& fileName, DataSummary& summary, RejectObserver const& onReject,
                               GoOn const& mayGoOn) {
    constexpr std::uint64_t linesBetween = 4096;
    struct Ended {};
    // A reader and a tree of its own: the loads' stay as they are, whatever becomes of this.
    STR::FileIoTurbo reader;
    reopen(reader, fileName);
    if (!isExpected(reader))
        return false;
    summary.version = reader.version();
    NumberPortabilityTree tree;
    TreeFilling filling(means(reader), tree, nullptr,
                        [&](unsigned long number, LineOutcome outcome, BAS::String const& line) {
                            summary.count(outcome);
                            onReject(number, outcome, line);
                        });
    ReadEnd end = ReadEnd::END_AT_READ;
    try {
        // Between lines, under no lock of the cache manager's: who is asked may take long, and throw.
        end = readLines(reader, [&](std::string_view line) {
            summary.longestLine = std::max<std::uint64_t>(summary.longestLine, line.size());
            filling.add(line);
            if (!mayGoOn || progressM.lines() % linesBetween != 0)
                return;
            summary.lines = progressM.lines();
            summary.records = filling.accepted();
            if (!mayGoOn(tree.bytes()))
                throw Ended();
        });
        summary.readToEnd = end != ReadEnd::ERROR;
    } catch (Ended const&) { // what was read so far is told
    }
    filling.finish(); // so that the counts belong together
    // Asked of the open file, not by its name, behind which another file may stand by now.
    summary.changed = summary.version != reader.version();
    summary.lastLineComplete = reader.lastLineComplete();
    summary.lines = progressM.lines();
    summary.lineBytes = progressM.bytes();
    summary.records = tree.entries();
    summary.withoutDigits = filling.counts().withoutDigits;
    summary.firstWithoutDigits = filling.counts().firstWithoutDigits;
    summarise(tree, summary, [this] { loadStopM.goOn(); });
    if (end == ReadEnd::ERROR)
        return readError(reader);
    return closeReader(reader);
}

void CacheManager::expectFile(BAS::String const& fileName, STR::FileVersion const& version) {
    BAS::MutexGuard const guard(expectationM.lock);
    expectationM.file = {fileName, version};
}

void CacheManager::expectAnyFile() {
    BAS::MutexGuard const guard(expectationM.lock);
    expectationM.file.reset();
}

bool CacheManager::isExpected(STR::FileIoTurbo const& reader) {
    {
        BAS::MutexGuard const guard(expectationM.lock);
        // A file that nobody has bound is any load's to take.
        if (!expectationM.file || expectationM.file->name != reader.fileName() ||
            expectationM.file->version == reader.version())
            return true;
    }
    report("ERR_FILE_CHANGED", BAS::Status::MAJOR, reader.fileName());
    return false;
}

bool CacheManager::visitFile(BAS::String const& fileName, LineVisitor const& visit) {
    beginLoad();
    return standbyTreeM != nullptr && unlessStopped(fileName, [&] {
               return OwnerServices::checkFile(*plugInM, fileName) && visitLines(fileName, visit);
           });
}

bool CacheManager::visitLines(BAS::String const& fileName, LineVisitor const& visit) {
    STR::FileIoTurbo reader;
    reopen(reader, fileName);
    RecordParser parser(codes(), numberOfColumnsM);
    FileLine shown;
    std::string digits;
    ReadEnd const end = readLines(reader, [&](std::string_view line) {
        ParsedLine const parsed = parser.parse(line);
        shown = {shown.number + 1, parsed.outcome, {}, {}, {}};
        if (parsed.outcome == LineOutcome::INSERTED) {
            // As a tree would hold it. The stored form may have other characters, which select nothing.
            digits = parsed.number;
            std::erase_if(digits, [](char character) { return !PBC::Digits::isDecimal(character); });
            shown.digits = digits;
            shown.validFrom = parsed.validFrom;
            shown.network = parsed.words[2];
        }
        visit(shown);
    });
    return end != ReadEnd::ERROR || readError(reader);
}

void CacheManager::noteCounts(LineCounts const& counts, STR::FileIoTurbo const& reader) {
    loadingM.counts = counts;
    if (counts.withoutDigits > 0)
        OwnerServices::report(*plugInM, "ERR_NUMBERS_WITHOUT_DIGITS", BAS::Status::WARNING,
                              {BAS::String::convert(counts.withoutDigits),
                               BAS::String::convert(counts.firstWithoutDigits), reader.fileName()});
}

// Reads into the standby tree and keeps the lines.
CacheManager::ReadEnd CacheManager::fillStandby(LineStore& lines, STR::FileIoTurbo& reader, bool& lastAccepted) {
    // Kept as text and parsed again for the other tree: the lines of a whole file take least room as they are.
    TreeFilling filling(means(reader), *standbyTreeM);
    ReadEnd const end = readLines(reader, [&](std::string_view line) {
        filling.add(line);
        lines.append(line);
    });
    filling.finish();
    noteCounts(filling.counts(), reader);
    lastAccepted = filling.lastAccepted();
    return end;
}

void CacheManager::reopen(STR::FileIoTurbo& reader, BAS::String const& fileName) {
    if (reader.isOpen())
        reader.closeFile();
    reader.openFile(fileName, STR::FileIoTurbo::readModeCM);
}

bool CacheManager::readError(STR::FileIoTurbo const& reader) {
    report("ERR_FILE_READ_ERR", BAS::Status::CRITICAL, reader.fileName());
    return false;
}

// Exchanges the tree and the active one.
void CacheManager::putLive(std::unique_ptr<NumberPortabilityTree>& tree) {
    // What takes long comes before the lock, and the last look at the stop too: behind the exchange it is too late.
    tree->prepare();
    loadStopM.goOn();
    BAS::DateTime const now = BAS::DateTime::now();
    if (!treeLockM.acquireWriteUnless(loadStopM.flag())) // a print may last
        throw LoadStop::Stopped();
    // No more than this between acquire and release, and nothing that can fail.
    activeTreeM.swap(tree);
    liveSinceM = now;
    ++epochM;
    treeLockM.releaseWrite();
}

// Feeds the former active tree the lines that the now active one was given, and drops them.
void CacheManager::refillStandby(LineStore& lines, STR::FileIoTurbo& reader) {
    try {
        TreeFilling filling(means(reader), *standbyTreeM);
        // The lines go as the tree grows, so that memory need not hold all of both.
        lines.consume([&](std::string_view line, unsigned long) { filling.add(line); });
        filling.finish();
        loadingM.standbyComplete = true;
    } catch (LoadStop::Stopped const&) { // the new data are live; no load comes that would use the standby tree
        standbyTreeM->clearAndDestroy();
    }
}

void CacheManager::restoreStandby() {
    // Copied and not shared: two pointers to one tree would have the next reload clear what is being searched.
    standbyTreeM->copyFrom(active(), [this] { loadStopM.goOn(); });
    loadingM.standbyComplete = true;
}

// After a load that ran out of memory or was stopped: frees what the standby tree holds and tries to restore it. If
// even that fails, the next delta load tries again before it uses the tree; after a stop there is none.
void CacheManager::abandonStandby() noexcept {
    if (loadingM.standbyComplete)
        return;
    try {
        restoreStandby();
    } catch (...) {
        try {
            standbyTreeM->clearAndDestroy();
        } catch (...) { // NOLINT(bugprone-empty-catch): it stays marked as incomplete
        }
    }
}

// Whether this succeeds does not decide the delta load; a failure is told to the framework's log by the writer.
void CacheManager::rewriteMainFile() {
    BAS::String inPlaceReason;
    try {
        STR::FileIo file(dataFileNameM, std::ios_base::out, STR::FileIo::IF_NEEDED);
        // The standby tree, because nobody searches it: the listing takes seconds and needs no lock then.
        NumberPortabilityTree const& merged = loadingM.standbyComplete ? *standbyTreeM : active();
        merged.printTree(file.stream(), false);
        noteMainFile(file.closeFile(), file.version());
        inPlaceReason = file.inPlaceReason();
    } catch (...) { // what is live is not in the file, or not all of it
        noteMainFile(false, {});
        throw;
    }
    if (!inPlaceReason.empty())
        tell([&] {
            OwnerServices::report(*plugInM, "INF_FILE_WRITTEN_IN_PLACE", BAS::Status::WARNING,
                                  BAS::Status::Arguments{dataFileNameM, inPlaceReason});
        });
}

// Without a version the file is as it was before.
void CacheManager::noteMainFile(bool saved, STR::FileVersion const& version) {
    BAS::MutexGuard const guard(mainFileM.lock);
    mainFileM.unsaved = !saved;
    if (version != STR::FileVersion())
        mainFileM.version = version;
}

bool CacheManager::closeReader(STR::FileIoTurbo& reader) {
    if (reader.closeFile())
        return true;
    report("ERR_CLOSE_NP_FILE", BAS::Status::CRITICAL, reader.fileName());
    return false;
}

void CacheManager::report(char const* identifier, BAS::Status::Severity severity, BAS::String const& argument) {
    OwnerServices::report(*plugInM, identifier, severity, BAS::Status::Arguments{argument});
}

} // namespace DAT::NumberPortability
