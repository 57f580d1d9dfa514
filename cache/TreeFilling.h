// DAT::NumberPortability::TreeFilling: puts the lines of one load into the trees that it fills.
//
// Purpose: the one way of every load from lines to trees: gathers lines in a batch, inserts its records in the order of
// their numbers, and reports what is wrong with lines in the order of the lines, once for every tree.
// Ownership: borrows the cache manager, the reader (for its name) and the trees. Threads: the loading thread.
// Errors: std::bad_alloc, and what says that loads are stopped; lines of the batch under way may then be in one tree and
// not in another, and unreported.
// Complexity: linear in the lines; holds up to a batch of them.
#pragma once

#include "cache/CacheManager.h"
#include "cache/RecordBatch.h"

#include <array>

namespace DAT::NumberPortability {

class TreeFilling {
  public:
    // Without a second tree `second` is null. `onReject` may be empty; it is told of every line that is not stored.
    TreeFilling(CacheManager& cacheManager, STR::FileIoTurbo const& reader, NumberPortabilityTree& first,
                NumberPortabilityTree* second = nullptr, RejectObserver onReject = {})
        : cacheManagerM(cacheManager), readerM(reader), treesM{&first, second}, onRejectM(std::move(onReject)),
          batchM(cacheManager.linesGatheredM) {}
    TreeFilling(TreeFilling const&) = delete;
    TreeFilling& operator=(TreeFilling const&) = delete;

    void add(std::string_view line);
    // To be called after the last line.
    void finish();

    // Complete after finish; and whether the last line was a record or a duplicate (false without lines).
    LineCounts const& counts() const { return countsM; }
    bool lastAccepted() const { return lastAcceptedM; }
    // Lines so far that are records or duplicates.
    std::uint64_t accepted() const { return acceptedM; }

  private:
    using Faults = std::vector<RecordBatch::Fault>;

    void insertBatch();
    Faults insertInto(NumberPortabilityTree& tree);
    void report(Faults const& first, Faults const& second);

    CacheManager& cacheManagerM;
    STR::FileIoTurbo const& readerM;
    std::array<NumberPortabilityTree*, 2> treesM;
    RejectObserver onRejectM;
    RecordBatch batchM;
    CacheManager::ParsedLine parsedM;
    unsigned long linesBeforeM = 0; // the batch
    LineCounts countsM;
    std::uint64_t acceptedM = 0;
    bool lastAcceptedM = false;
};

} // namespace DAT::NumberPortability
