#include "cache/TreeFilling.h"

#include <algorithm>

namespace DAT::NumberPortability {

void TreeFilling::add(std::string_view line) {
    ParsedLine const parsed = parserM.parse(line);
    batchM.add(parsed);
    lastAcceptedM = parsed.outcome == LineOutcome::INSERTED;
    // A duplicate counts as accepted: that it is one shows only in a tree, and what a reload goes by is the form.
    if (lastAcceptedM) {
        ++acceptedM;
        if (!parsed.hasDigit && countsM.withoutDigits++ == 0)
            countsM.firstWithoutDigits = linesBeforeM + batchM.lines();
    }
    if (batchM.isFull())
        insertBatch();
}

void TreeFilling::finish() {
    insertBatch();
}

// Both trees first and then the reports: a line that is wrong is told of once per tree, one right after the other.
void TreeFilling::insertBatch() {
    Duplicates const first = insertInto(firstM);
    Duplicates const second = secondM == nullptr ? Duplicates() : insertInto(*secondM);
    report(first, second);
    for (RecordBatch::Fault const& fault : batchM.faults())
        ++countsM.byOutcome[static_cast<std::size_t>(fault.what.outcome)];
    countsM.byOutcome[static_cast<std::size_t>(LineOutcome::DUPLICATE)] += first.size();
    countsM.rejected += batchM.faults().size() + first.size();
    countsM.duplicates += first.size();
    // Last: the reports above count from the lines before this batch.
    linesBeforeM += batchM.lines();
    batchM.clear();
}

TreeFilling::Duplicates TreeFilling::insertInto(NumberPortabilityTree& tree) {
    Duplicates duplicates;
    NumberPortabilityTree::Filler filler(tree);
    batchM.visitSorted([&](RecordBatch::Record const& record) {
        stopM.goOn();
        // A full key may be cut off: what more digits there are shows in the number alone.
        bool const isCut = record.written != 0 && record.key.length() == PBC::Digits::mostCM;
        if (!(isCut ? filler.insert(BAS::String(storedNumber(record)), record.data)
                    : filler.insert(record.key, record.data)))
            duplicates.push_back(&record);
    });
    // They came by number. A batch has its records in the order of their lines, one behind the other.
    std::sort(duplicates.begin(), duplicates.end());
    return duplicates;
}

// Faults and duplicates come by line each, and are told of by line.
void TreeFilling::report(Duplicates const& first, Duplicates const& second) {
    auto fault = batchM.faults().begin();
    auto const faultsBefore = [&](std::uint32_t line) {
        for (; fault != batchM.faults().end() && fault->line < line; ++fault)
            reject(fault->line, fault->what.outcome, secondM != nullptr,
                   [&](unsigned long number) { reporterM.report(fault->what, batchM.line(fault->line), number); });
    };
    auto other = second.begin();
    for (RecordBatch::Record const* const duplicate : first) {
        faultsBefore(duplicate->line);
        bool const twice = other != second.end() && *other == duplicate;
        other += twice ? 1 : 0;
        reject(duplicate->line, LineOutcome::DUPLICATE, twice, [&](unsigned long number) {
            reporterM.reportDuplicate(storedNumber(*duplicate), duplicate->data.validFromM, number);
        });
    }
    faultsBefore(batchM.lines());
}

// The observer hears of a line once, right after the first report.
template <class Report>
void TreeFilling::reject(std::uint32_t line, LineOutcome outcome, bool twice, Report&& make) {
    stopM.goOn(); // reports to a slow log may take longer than all the rest
    unsigned long const number = linesBeforeM + line + 1;
    make(number);
    if (onRejectM)
        onRejectM(number, outcome, BAS::String(batchM.line(line)));
    if (twice)
        make(number);
}

std::string TreeFilling::storedNumber(RecordBatch::Record const& record) const {
    std::string number;
    if (record.written != 0)
        return std::string(codesM.storedForm(batchM.writtenNumber(record), number));
    for (unsigned i = 0; i < record.key.length(); ++i)
        number += static_cast<char>('0' + record.key.at(i));
    return number;
}

} // namespace DAT::NumberPortability
