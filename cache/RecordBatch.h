// DAT::NumberPortability::RecordBatch: lines that were parsed and not yet inserted.
//
// Purpose: records that enter a tree in the order of their numbers find what they need in the processor's caches, and
// most data files are in no order. So a load gathers some hundred thousand lines, sorts their records by number and
// inserts those; the lines stay at hand for what is to be reported of them, in their own order, and with them what the
// parser has found, so that no line is parsed twice.
// Units and ranges: positions of lines within the batch, from 0. A batch is full at as many lines as its maker says,
// mostLinesCM in a load, or mostBytesCM bytes; one line more always fits.
// Ownership: owns everything. Views and references stay valid until the next append or clear.
// Threads: none inside. Errors: std::bad_alloc. Complexity: appending is amortised constant, sorting linear.
#pragma once

#include "cache/RecordParser.h"
#include "store/Digits.h"
#include "store/NumberPortabilityData.h"

#include <cstdint>
#include <string_view>
#include <vector>

namespace DAT::NumberPortability {

class RecordBatch {
  public:
    static constexpr std::uint32_t mostLinesCM = 1U << 18;
    static constexpr std::size_t mostBytesCM = 16UL * 1024 * 1024;

    explicit RecordBatch(std::uint32_t mostLines) : mostLinesM(mostLines) {}

    struct Record {
        PBC::Digits key; // the number's first digits
        NumberPortabilityData data;
        std::uint32_t line;
        std::uint32_t written; // where its number stands as written, from 1; 0 when the key says it all
    };
    struct Fault { // of a line that is no record
        std::uint32_t line;
        LineFault what;
    };

    // Keeps a copy of the line and what the parser has found in it.
    void add(ParsedLine const& parsed);

    std::uint32_t lines() const { return static_cast<std::uint32_t>(endsM.size()); }
    bool isFull() const { return lines() >= mostLinesM || textM.size() >= mostBytesCM; }
    std::string_view line(std::uint32_t position) const {
        std::size_t const begin = position == 0 ? 0 : endsM[position - 1];
        return {textM.data() + begin, endsM[position] - begin};
    }
    std::vector<Fault> const& faults() const { return faultsM; } // in the order of the lines
    // The number as the line has it, of a record whose key does not say it all.
    std::string_view writtenNumber(Record const& record) const {
        return writtenM[record.written - 1].of(line(record.line));
    }

    // Calls visitor(Record const&) for every record by ascending key, those of one key in the order of their lines.
    template <class Visitor>
    void visitSorted(Visitor&& visitor) {
        constexpr std::size_t ahead = 16;
        sort();
        for (std::size_t i = 0; i < orderM.size(); ++i) {
            if (i + ahead < orderM.size())
                __builtin_prefetch(&recordsM[orderM[i + ahead].record]);
            visitor(static_cast<Record const&>(recordsM[orderM[i].record]));
        }
    }

    // Empties the batch; the memory stays for the next one, but for that of a line beyond all measure.
    void clear();

  private:
    struct Place {
        std::uint64_t key;
        std::uint32_t record;
    };

    void appendLine(std::string_view line);
    void sort();
    void sortByByte(unsigned shift);

    std::uint32_t mostLinesM;
    std::vector<char> textM;
    std::vector<std::size_t> endsM; // of the lines in textM
    std::vector<Record> recordsM;
    std::vector<Column> writtenM; // numbers, in their lines; most records have none
    std::vector<Fault> faultsM;
    std::vector<Place> orderM;
    std::vector<Place> spareM;
};

} // namespace DAT::NumberPortability
