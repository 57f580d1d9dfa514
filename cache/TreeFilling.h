// DAT::NumberPortability::TreeFilling: puts the lines of one load into the trees that it fills.
//
// Purpose: the one way of every load from lines to trees: parses each line once, gathers lines in a batch, inserts its
// records in the order of their numbers, and reports what is wrong with lines in the order of the lines, once for every
// tree.
// Ownership: borrows the word that ends loads, what parser and reporter borrow, and the trees.
// Threads: the loading thread. Errors: std::bad_alloc and LoadStop::Stopped; lines of the batch under way may then be
// in one tree and not in another, and unreported.
// Complexity: linear in the lines; holds up to a batch of them.
#pragma once

#include "cache/LineReporter.h"
#include "cache/LoadStop.h"
#include "cache/RecordBatch.h"
#include "cache/RecordParser.h"
#include "store/NumberPortabilityTree.h"

#include <string>
#include <vector>

namespace DAT::NumberPortability {

class TreeFilling {
  public:
    // What fills the trees of a load.
    struct Means {
        DiallingCodes codes;
        std::uint32_t columns; // as of RecordParser
        LineReporter reporter;
        LoadStop const& stop;
        std::uint32_t linesGathered = RecordBatch::mostLinesCM;
    };

    // Without a second tree `second` is null. `onReject` may be empty; it is told of every line that is not stored.
    TreeFilling(Means const& means, NumberPortabilityTree& first, NumberPortabilityTree* second = nullptr,
                RejectObserver onReject = {})
        : stopM(means.stop), parserM(means.codes, means.columns), reporterM(means.reporter), codesM(means.codes),
          firstM(first), secondM(second), onRejectM(std::move(onReject)), batchM(means.linesGathered) {}
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
    // Records that a tree refused, by line; they are the batch's.
    using Duplicates = std::vector<RecordBatch::Record const*>;

    void insertBatch();
    Duplicates insertInto(NumberPortabilityTree& tree);
    void report(Duplicates const& first, Duplicates const& second);
    template <class Report>
    void reject(std::uint32_t line, LineOutcome outcome, bool twice, Report&& make);
    std::string storedNumber(RecordBatch::Record const& record) const;

    LoadStop const& stopM;
    RecordParser parserM;
    LineReporter reporterM;
    DiallingCodes codesM;
    NumberPortabilityTree& firstM;
    NumberPortabilityTree* secondM;
    RejectObserver onRejectM;
    RecordBatch batchM;
    unsigned long linesBeforeM = 0; // the batch
    LineCounts countsM;
    std::uint64_t acceptedM = 0;
    bool lastAcceptedM = false;
};

} // namespace DAT::NumberPortability
