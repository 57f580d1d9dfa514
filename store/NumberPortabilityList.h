// DAT::NumberPortability::NumberPortabilityList: the history of one number or number prefix.
//
// Purpose: holds the records of one stored key so that the one that holds at an instant is found by a short scan.
// Invariant of a list built by insertAt alone, which is how the system builds every list: records stand newest first,
// no two with the same valid-from. insert does not keep it; the two must not be mixed on one list.
// Ownership: owns its records. The number tree creates one, in a block of its pool, for every history that its trie does
// not hold in a node itself and that is not long (LongHistory.h); copies are made when a whole tree is copied, and for whoever visits histories.
// Threads: no locking inside. search, printTree, length and record only read and may run at once; insert, insertAt
// and destruction need exclusive access.
// Errors: insert and insertAt throw when memory runs out and leave the list as it was; record throws
// std::out_of_range.
// Complexity: insertion is linear in the length (the array is reallocated to exactly one more record); search is
// linear in the position of the record found.
#pragma once

#include "framework/BAS/String.h"
#include "store/ExactVector.h"
#include "store/NumberPortabilityData.h"

#include <iosfwd>

namespace DAT::NumberPortability {

class NumberPortabilityList {
  public:
    using Memory = ExactVector<NumberPortabilityData>::Memory;

    NumberPortabilityList() = default;
    // POOL: the list lies in a block of a BlockPool, and takes its array from there too.
    explicit NumberPortabilityList(Memory memory) noexcept : recordsM(memory) {}
    NumberPortabilityList(NumberPortabilityList const&) = default;
    NumberPortabilityList(NumberPortabilityList const& other, Memory memory) : recordsM(other.recordsM, memory) {}
    NumberPortabilityList& operator=(NumberPortabilityList const&) = delete;

    // Appends at the end, whatever the date.
    void insert(NumberPortabilityData const& record);

    // Inserts in date order. False, and nothing changes, when a record with the same valid-from is there.
    bool insertAt(NumberPortabilityData const& record);

    // Copies the newest record that has started by `at` into `out`; false, and `out` unchanged, when there is none.
    bool search(BAS::DateTime const& at, NumberPortabilityData& out) const;
    // The same, and `next` tells when the next record after `at` begins; invalid when there is none.
    bool search(BAS::DateTime const& at, NumberPortabilityData& out, BAS::DateTime& next) const;

    // One line a record, newest first: number, two blanks, valid-from as 14 digits, two blanks, network identifier,
    // each without surrounding blanks. These are lines of a data file.
    void printTree(std::ostream& out, BAS::String const& number) const;

    // Fetches the first records into the processor's cache.
    [[gnu::always_inline]] void prefetch() const noexcept { recordsM.prefetch(); }

    std::uint32_t length() const noexcept { return recordsM.length(); }
    NumberPortabilityData const& record(std::uint32_t position) const { return recordsM[position]; }

  private:
    ExactVector<NumberPortabilityData> recordsM;
};

// One line of a listing, ended and flushed like std::endl. `number` has no surrounding blanks.
void printRecord(std::ostream& out, std::string_view number, BAS::DateTime const& validFrom,
                 BAS::SimpleString const& networkId);

} // namespace DAT::NumberPortability
