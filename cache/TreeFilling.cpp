#include "cache/TreeFilling.h"

#include <algorithm>

namespace DAT::NumberPortability {

void TreeFilling::add(std::string_view line) {
    batchM.appendLine(line);
    LineOutcome const outcome = cacheManagerM.parse(line, parsedM);
    lastAcceptedM = outcome == LineOutcome::INSERTED;
    if (lastAcceptedM) {
        ++acceptedM;
        if (!parsedM.hasDigit && countsM.withoutDigits++ == 0)
            countsM.firstWithoutDigits = linesBeforeM + batchM.lines();
        batchM.addRecord(parsedM.key, parsedM.isLong, parsedM.record);
    } else
        batchM.addFault(outcome);
    if (batchM.isFull())
        insertBatch();
}

void TreeFilling::finish() {
    insertBatch();
}

void TreeFilling::insertBatch() {
    Faults const first = insertInto(*treesM[0]);
    report(first, treesM[1] == nullptr ? Faults() : insertInto(*treesM[1]));
    countsM.rejected += first.size();
    for (RecordBatch::Fault const& fault : first)
        countsM.duplicates += fault.outcome == LineOutcome::DUPLICATE ? 1U : 0U;
    linesBeforeM += batchM.lines();
    batchM.clear();
}

// Everything that is wrong with lines of the batch, by line.
TreeFilling::Faults TreeFilling::insertInto(NumberPortabilityTree& tree) {
    Faults faults = batchM.faults();
    NumberPortabilityTree::Filler filler(tree);
    batchM.visitSorted([&](RecordBatch::Record const& record) {
        cacheManagerM.goOn();
        bool inserted = false;
        if (record.isLong) {
            cacheManagerM.parse(batchM.line(record.line), parsedM);
            inserted = filler.insert(BAS::String(parsedM.number), record.data);
        } else {
            inserted = filler.insert(record.key, record.data);
        }
        if (!inserted)
            faults.push_back({record.line, LineOutcome::DUPLICATE});
    });
    std::sort(faults.begin(), faults.end(), [](auto const& left, auto const& right) { return left.line < right.line; });
    return faults;
}

void TreeFilling::report(Faults const& first, Faults const& second) {
    auto other = second.begin();
    for (RecordBatch::Fault const& fault : first) {
        cacheManagerM.goOn();
        std::string_view const line = batchM.line(fault.line);
        unsigned long const number = linesBeforeM + fault.line + 1;
        cacheManagerM.reportLine(fault.outcome, line, number, readerM);
        if (onRejectM)
            onRejectM(number, fault.outcome, BAS::String(line));
        if (other != second.end() && other->line == fault.line)
            cacheManagerM.reportLine((other++)->outcome, line, number, readerM);
    }
}

} // namespace DAT::NumberPortability
