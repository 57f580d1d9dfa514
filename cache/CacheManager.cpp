// Construction and everything that look-ups, counts and prints need.
#include "cache/CacheManager.h"

#include "cache/OwnerServices.h"
#include "framework/STR/FileIo.h"

#include <algorithm>
#include <iostream>
#include <stdexcept>

namespace DAT::NumberPortability {

CacheManager::CacheManager(PlugIn* plugIn, BAS::String const& nationalAccessCode,
                           BAS::String const& internationalAccessCode, BAS::String const& countryCode,
                           BAS::String const& internationalAccessCodeSign, unsigned int numberOfColumns,
                           BAS::String const& dataFileName)
    : dataFileNameM(dataFileName), nationalAccessCodeM(nationalAccessCode),
      internationalAccessCodeM(internationalAccessCode), countryCodeM(countryCode),
      internationalAccessCodeSignM(internationalAccessCodeSign), numberOfColumnsM(numberOfColumns),
      activeTreeM(std::make_unique<NumberPortabilityTree>()), standbyTreeM(std::make_unique<NumberPortabilityTree>()),
      plugInM(plugIn) {}

// Without trees: whatever it is asked for, it finds nothing.
CacheManager::CacheManager(PlugIn* plugIn)
    : nationalAccessCodeM(BAS::NULL_STRING), internationalAccessCodeM(BAS::NULL_STRING), countryCodeM(BAS::NULL_STRING),
      internationalAccessCodeSignM(BAS::NULL_STRING), numberOfColumnsM(0), plugInM(plugIn) {}

CacheManager::~CacheManager() {
    activeTreeM.reset(); // in this order: first the active tree, then the standby tree
    standbyTreeM.reset();
}

bool CacheManager::search(BAS::String const& number, BAS::DateTime const& at, NumberPortabilityData& out,
                          unsigned int method) {
    // The lock outlives the search and no more: what is found is copied, for the tree may be gone right after.
    RWReadersWriterLock::ReadGuard const guard(treeLockM);
    return activeTreeM != nullptr && activeTreeM->search(number, at, out, method);
}

template <class Look>
void CacheManager::inParts(std::size_t size, Look&& look) {
    for (std::size_t begin = 0; begin < size; begin += batchSizeCM) {
        // A lock for each part: a batch of any length would otherwise hold up an exchange for as long as it likes.
        std::size_t const count = std::min(batchSizeCM, size - begin);
        RWReadersWriterLock::ReadGuard const guard(treeLockM, count);
        look(activeTreeM.get(), begin, count, epochM);
    }
}

void CacheManager::search(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                          std::span<NumberPortabilityData> records, std::span<bool> found, unsigned int method) {
    if (instants.size() != numbers.size() || records.size() != numbers.size() || found.size() != numbers.size())
        throw std::invalid_argument("CacheManager: a batch whose spans differ in length");
    inParts(numbers.size(),
            [&](NumberPortabilityTree const* tree, std::size_t begin, std::size_t count, std::uint64_t /*epoch*/) {
                if (tree == nullptr)
                    std::fill_n(found.begin() + static_cast<std::ptrdiff_t>(begin), count, false);
                else
                    tree->search(numbers.subspan(begin, count), instants.subspan(begin, count),
                                 records.subspan(begin, count), found.subspan(begin, count), method);
            });
}

void CacheManager::describeMany(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                                std::span<LookUpDetail> details, unsigned int method) {
    if (instants.size() != numbers.size() || details.size() != numbers.size())
        throw std::invalid_argument("CacheManager: a batch whose spans differ in length");
    inParts(numbers.size(),
            [&](NumberPortabilityTree const* tree, std::size_t begin, std::size_t count, std::uint64_t epoch) {
                if (tree == nullptr)
                    std::fill_n(details.begin() + static_cast<std::ptrdiff_t>(begin), count, LookUpDetail());
                else
                    tree->describeMany(numbers.subspan(begin, count), instants.subspan(begin, count),
                                       details.subspan(begin, count), method);
                for (LookUpDetail& detail : details.subspan(begin, count))
                    detail.epoch = epoch;
            });
}

std::vector<StoredPrefix> CacheManager::explain(BAS::String const& number) {
    std::vector<StoredPrefix> prefixes;
    // Counted before it begins and subtracted in describe: the lock counts every short read as a look-up.
    BAS::MutexGuard const one(otherReadsM.lock);
    ++otherReadsM.count;
    RWReadersWriterLock::ReadGuard const guard(treeLockM);
    if (activeTreeM == nullptr)
        return prefixes;
    activeTreeM->visitPrefixes(number, [&](BAS::String const& key, NumberPortabilityTree::History const& history) {
        StoredPrefix& prefix = prefixes.emplace_back();
        prefix.key = key;
        // Copies, since the caller reads them when the lock is gone.
        prefix.history.reserve(history.length());
        history.each([&](NumberPortabilityData const& record) {
            prefix.history.push_back(record);
            return true;
        });
    });
    return prefixes;
}

BAS::DateTime CacheManager::visitUpcoming(BAS::DateTime after, RecordVisitor const& visit) {
    // A long reader: short ones go on beside it, however long the visitor takes.
    RWReadersWriterLock::LongReadGuard const guard(treeLockM);
    if (activeTreeM != nullptr)
        activeTreeM->visitLaterThan(after, visit, [this] { loadStopM.goOn(); });
    return liveSinceM;
}

void CacheManager::describe(ServiceStatus& status) {
    status.dataFileName = dataFileNameM;
    {
        BAS::MutexGuard const guard(mainFileM.lock);
        status.dataFileVersion = mainFileM.version;
        status.unsaved = mainFileM.unsaved;
    }
    BAS::MutexGuard const one(otherReadsM.lock);
    // No other such read is under way now, so each of them is in both numbers or in neither. This one is in neither yet
    // and counts for the next call.
    status.lookUps = treeLockM.shortReads() - otherReadsM.count++;
    RWReadersWriterLock::ReadGuard const guard(treeLockM);
    if (activeTreeM == nullptr)
        return;
    status.records = activeTreeM->entries();
    status.numbers = activeTreeM->numbers();
    status.treeBytes = activeTreeM->bytes();
    status.liveSince = liveSinceM;
    status.epoch = epochM;
}

std::uint32_t CacheManager::numOfEntries() {
    auto const entries = [this]() NP_REQUIRES_SHARED(treeLockM) {
        return activeTreeM == nullptr ? 0 : activeTreeM->entries();
    };
    // An exclusive section, which waits for a print. Nobody who ends waits for one: after a stop it is a short read.
    if (treeLockM.acquireWriteUnless(loadStopM.flag())) {
        std::uint32_t const count = entries();
        treeLockM.releaseWrite();
        return count;
    }
    BAS::MutexGuard const one(otherReadsM.lock);
    ++otherReadsM.count;
    RWReadersWriterLock::ReadGuard const guard(treeLockM);
    return entries();
}

void CacheManager::print(std::ostream& out, bool header) {
    RWReadersWriterLock::LongReadGuard const guard(treeLockM);
    if (activeTreeM != nullptr)
        activeTreeM->printTree(out, header);
}

bool CacheManager::printData(BAS::String const& target) {
    if (target == BAS::NULL_STRING) {
        static BAS::Mutex console; // one listing after the other
        BAS::MutexGuard const guard(console);
        std::cout.clear(); // a console that failed once may be there again
        print(std::cout, true);
        if (!std::cout.flush())
            OwnerServices::report(*plugInM, "ERR_WRITE_FILE", BAS::Status::MAJOR, {"Console", "cannot write it"});
        return true;
    }
    // Opened before and closed after the lock is held: both may report, and the sync to disk takes its time.
    // The file reports what goes wrong with it; the result is true in any case.
    STR::FileIo file(target, std::ios_base::out);
    print(file.stream(), true);
    file.closeFile();
    return true;
}

// Takes the tree as it is given: the caller sees to it that nobody else does.
bool CacheManager::insertCache(NumberPortabilityTree* tree, BAS::String const& line, unsigned long number, bool ordered,
                               STR::FileIoTurbo& reader) {
    LineReporter const reporter(*plugInM, codes(), reader);
    RecordParser parser(codes(), numberOfColumnsM);
    ParsedLine const parsed = parser.parse(line.view());
    if (parsed.outcome != LineOutcome::INSERTED) {
        reporter.report(parsed.fault(), line.view(), number);
        return false;
    }
    if (!tree->insert(BAS::String(parsed.number), {parsed.validFrom, BAS::SimpleString(parsed.words[2])}, ordered))
        reporter.reportDuplicate(parsed.number, parsed.validFrom, number);
    return true;
}

} // namespace DAT::NumberPortability
