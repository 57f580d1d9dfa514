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

namespace DAT::NumberPortability {

namespace {

void summarise(NumberPortabilityTree const& tree, DataSummary& summary) {
    constexpr std::size_t inPlace = 7;    // a longer network of one among several records has a text of its own
    constexpr std::size_t heapBytes = 32; // that the allocator adds at the most
    summary.treeBytes = tree.bytes();
    std::unordered_map<std::string, unsigned long> networks;
    tree.visit([&](BAS::String const&, NumberPortabilityList const& history) {
        ++summary.numbers;
        std::uint32_t const length = history.length();
        for (std::uint32_t i = 0; i < length; ++i) {
            std::string const network = history.record(i).networkIdM.c_str();
            summary.treeBytes += length > 1 && network.size() > inPlace ? network.size() + heapBytes : 0;
            ++networks[network];
        }
        BAS::DateTime const newest = history.record(0).validFromM;
        BAS::DateTime const oldest = history.record(length - 1).validFromM;
        if (summary.numbers == 1 || newest > summary.latest)
            summary.latest = newest;
        summary.earliest = std::min(summary.earliest, oldest); // an invalid instant is later than every valid one
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
        progressM.addLine(line.length() + 1);
        take(line);
    }
    return ReadEnd::END_BEFORE_READ;
}

// What the latest load read and rejected is nothing yet, also when its file check fails.
void CacheManager::beginLoad() {
    progressM.start(0);
    rejectedM = 0;
}

bool CacheManager::load() {
    beginLoad();
    if (standbyTreeM == nullptr || !OwnerServices::checkFile(*plugInM))
        return false;
    reopen(dataFileIoM, dataFileNameM);
    if (!isExpected(dataFileIoM))
        return false;
    standbyCompleteM = false;
    TreeFilling filling(*this, dataFileIoM, active(), standbyTreeM.get());
    ReadEnd const end = readLines(dataFileIoM, [&](std::string_view line) { filling.add(line); });
    filling.finish();
    rejectedM = filling.rejected();
    active().prepare();
    standbyCompleteM = true;
    markLive();
    bool const unchanged = end == ReadEnd::ERROR || isExpected(dataFileIoM);
    mainFileLoadedM = end != ReadEnd::ERROR && unchanged;
    if (!unchanged)
        return false;
    switch (end) {
    case ReadEnd::ERROR:
        return readError(dataFileIoM);
    case ReadEnd::END_AT_READ:
        report("INF_FILE_EOF", BAS::Status::NORMAL, dataFileIoM.fileName());
        dataFileIoM.closeFile();
        break;
    case ReadEnd::END_BEFORE_READ:
        dataFileIoM.closeFile();
        report("INF_FILE_CLOSED", BAS::Status::NORMAL, dataFileIoM.fileName());
        break;
    }
    return true;
}

bool CacheManager::cacheReload(bool const& reuseOnFailure) {
    beginLoad();
    if (standbyTreeM == nullptr || !OwnerServices::checkFile(*plugInM))
        return false;
    try {
        return reload(reuseOnFailure);
    } catch (...) {
        abandonStandby();
        throw;
    }
}

bool CacheManager::reload(bool reuseOnFailure) {
    reopen(dataFileIoM, dataFileNameM);
    if (!isExpected(dataFileIoM))
        return false;
    standbyCompleteM = false;
    standbyTreeM->clearAndDestroy();

    LineStore lines;
    bool lastAccepted = false;
    ReadEnd const end = fillStandby(lines, dataFileIoM, lastAccepted);
    bool const unchanged = end == ReadEnd::ERROR || isExpected(dataFileIoM);
    if (end == ReadEnd::ERROR || !unchanged || (!lastAccepted && !reuseOnFailure)) {
        restoreStandby();
        return end == ReadEnd::ERROR && readError(dataFileIoM);
    }

    exchangeTrees();
    mainFileLoadedM = true;
    standbyTreeM->clearAndDestroy();
    refillStandby(lines, dataFileIoM);

    if (!closeReader(dataFileIoM))
        return false;
    report("INF_DELETE_OLD_DATA", BAS::Status::NORMAL, OwnerServices::name(*plugInM));
    return true;
}

bool CacheManager::cacheDeltaLoad(BAS::String const& fileName) {
    beginLoad();
    if (standbyTreeM == nullptr || !OwnerServices::checkFile(*plugInM, fileName))
        return false;
    if (!mainFileLoadedM) { // the rewritten main file would lack what was never read from it
        report("ERR_MAIN_DATA_NOT_LOADED", BAS::Status::CRITICAL, dataFileNameM);
        return false;
    }
    try {
        return deltaLoad(fileName);
    } catch (...) {
        abandonStandby();
        throw;
    }
}

bool CacheManager::deltaLoad(BAS::String const& fileName) {
    if (!standbyCompleteM) // an earlier load ran out of memory
        restoreStandby();
    reopen(deltaFileIoM, fileName);
    if (!isExpected(deltaFileIoM))
        return false;
    standbyCompleteM = false;

    LineStore lines;
    bool lastAccepted = false;
    ReadEnd const end = fillStandby(lines, deltaFileIoM, lastAccepted);
    if (end == ReadEnd::ERROR || !isExpected(deltaFileIoM)) {
        restoreStandby();
        return end == ReadEnd::ERROR && readError(deltaFileIoM);
    }

    exchangeTrees();
    std::exception_ptr failure;
    try {
        refillStandby(lines, deltaFileIoM);
    } catch (...) { // the merged data are live already, so they must reach the main file all the same
        failure = std::current_exception();
        abandonStandby();
    }
    rewriteMainFile();
    if (failure)
        std::rethrow_exception(failure);

    if (!closeReader(dataFileIoM))
        return false;
    deltaFileIoM.closeFile();
    return true;
}

bool CacheManager::examine(BAS::String const& fileName, DataSummary& summary, RejectObserver const& onReject,
                           GoOn const& goOn) {
    constexpr std::uint64_t linesBetween = 4096;
    struct Ended {};
    summary = DataSummary();
    beginLoad();
    if (standbyTreeM == nullptr || !OwnerServices::checkFile(*plugInM, fileName))
        return false;
    STR::FileIoTurbo reader;
    reopen(reader, fileName);
    summary.version = reader.version();
    NumberPortabilityTree tree;
    TreeFilling filling(*this, reader, tree, nullptr,
                        [&](unsigned long number, LineOutcome outcome, BAS::String const& line) {
                            summary.count(outcome);
                            onReject(number, outcome, line);
                        });
    ReadEnd end = ReadEnd::END_AT_READ;
    try {
        end = readLines(reader, [&](std::string_view line) {
            summary.longestLine = std::max<std::uint64_t>(summary.longestLine, line.size());
            filling.add(line);
            if (goOn && progressM.lines() % linesBetween == 0 && !goOn(tree.bytes()))
                throw Ended();
        });
        filling.finish();
        summary.readToEnd = end != ReadEnd::ERROR;
    } catch (Ended const&) { // what was read so far is told
    }
    summary.changed = summary.version != reader.version();
    summary.lastLineComplete = reader.lastLineComplete();
    summary.lines = progressM.lines();
    summary.lineBytes = progressM.bytes();
    summary.records = tree.entries();
    summarise(tree, summary);
    if (end == ReadEnd::ERROR)
        return readError(reader);
    return closeReader(reader);
}

void CacheManager::expectFile(BAS::String const& fileName, STR::FileVersion const& version) {
    BAS::MutexGuard const guard(expectedLockM);
    expectedM = {fileName, version};
}

void CacheManager::expectAnyFile() {
    BAS::MutexGuard const guard(expectedLockM);
    expectedM.reset();
}

bool CacheManager::isExpected(STR::FileIoTurbo const& reader) {
    {
        BAS::MutexGuard const guard(expectedLockM);
        if (!expectedM || expectedM->fileName != reader.fileName() || expectedM->version == reader.version())
            return true;
    }
    report("ERR_FILE_CHANGED", BAS::Status::MAJOR, reader.fileName());
    return false;
}

bool CacheManager::visitFile(BAS::String const& fileName, LineVisitor const& visit) {
    beginLoad();
    if (standbyTreeM == nullptr || !OwnerServices::checkFile(*plugInM, fileName))
        return false;
    STR::FileIoTurbo reader;
    reopen(reader, fileName);
    ParsedLine parsed;
    FileLine shown;
    ReadEnd const end = readLines(reader, [&](std::string_view line) {
        shown = {shown.number + 1, parse(line, parsed), {}, {}, {}};
        if (shown.outcome == LineOutcome::INSERTED) {
            std::erase_if(parsed.number, [](char character) { return !PBC::Digits::isDecimal(character); });
            shown.digits = parsed.number;
            shown.validFrom = parsed.record.validFromM;
            shown.network = parsed.record.networkIdM.view();
        }
        visit(shown);
    });
    return end != ReadEnd::ERROR || readError(reader);
}

// Reads into the standby tree and keeps the lines.
CacheManager::ReadEnd CacheManager::fillStandby(LineStore& lines, STR::FileIoTurbo& reader, bool& lastAccepted) {
    TreeFilling filling(*this, reader, *standbyTreeM);
    ReadEnd const end = readLines(reader, [&](std::string_view line) {
        filling.add(line);
        lines.append(line);
    });
    filling.finish();
    rejectedM = filling.rejected();
    lastAccepted = filling.lastAccepted();
    return end;
}

void CacheManager::markLive() {
    BAS::DateTime const now = BAS::DateTime::now();
    RWReadersWriterLock::WriteGuard const guard(treeLockM);
    liveSinceM = now;
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

void CacheManager::exchangeTrees() {
    standbyTreeM->prepare();
    BAS::DateTime const now = BAS::DateTime::now();
    RWReadersWriterLock::WriteGuard const guard(treeLockM);
    activeTreeM.swap(standbyTreeM);
    liveSinceM = now;
}

// Feeds the former active tree the lines that the now active one was given, and drops them.
void CacheManager::refillStandby(LineStore& lines, STR::FileIoTurbo& reader) {
    TreeFilling filling(*this, reader, *standbyTreeM);
    lines.consume([&](std::string_view line, unsigned long) { filling.add(line); });
    filling.finish();
    standbyCompleteM = true;
}

void CacheManager::restoreStandby() {
    standbyTreeM->copyFrom(active());
    standbyCompleteM = true;
}

// After a load that ran out of memory: frees what the standby tree holds and tries to restore it. If even that fails,
// the next delta load tries again before it uses the tree.
void CacheManager::abandonStandby() noexcept {
    if (standbyCompleteM)
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
    STR::FileIo file(dataFileNameM, std::ios_base::out);
    NumberPortabilityTree const& merged = standbyCompleteM ? *standbyTreeM : active();
    merged.printTree(file.stream(), false);
    file.closeFile();
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
