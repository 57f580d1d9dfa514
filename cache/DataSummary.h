// DAT::NumberPortability::DataSummary: what a data file holds, and what is wrong with it.
//
// Purpose: the result of examining a data file without serving it. Every line is counted once: as a record, or under
// the one reason for which it was rejected. What is to be known of a file before it is loaded is told as well: whether
// it is whole, what it takes in memory, and which version of it was read.
// FileLine shows the lines themselves, one by one.
// Units and ranges: memory and lengths in bytes.
// Ownership: a value. Threads: none inside. Errors: none. Complexity: constant.
#pragma once

#include "framework/BAS/DateTime.h"
#include "framework/STR/FileVersion.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

namespace DAT::NumberPortability {

// What became of one line.
enum class LineOutcome {
    INSERTED,
    DUPLICATE,          // the number has a record with this valid-from already
    WRONG_FIELD_COUNT,  // not three fields
    INVALID_DATE_TIME,  // no valid 14-digit instant
    INVALID_NUMBER,     // no decimal digit, so it names no number
    INVALID_NETWORK_ID, // holds a NUL, which would cut it off
};
constexpr std::size_t lineOutcomesCM = 6;

// What a load's lines were, each counted once, however many trees they went into.
struct LineCounts {
    std::array<std::uint64_t, lineOutcomesCM> byOutcome{}; // the rejected ones; INSERTED stays 0
    std::uint64_t rejected = 0;                            // all of these
    std::uint64_t duplicates = 0;                          // of one another, or of what was there before
    // Records, duplicates among them, whose number field has no digit: normalising makes the country's own prefix of
    // such a field, and so they answer for all of the country.
    std::uint64_t withoutDigits = 0;
    std::uint64_t firstWithoutDigits = 0; // its line; 0 when there is none
};

struct DataSummary {
    unsigned long lines = 0;
    unsigned long records = 0;
    unsigned long numbers = 0; // different numbers and prefixes
    unsigned long rejectedFields = 0;
    unsigned long rejectedDateTimes = 0;
    unsigned long rejectedNumbers = 0;
    unsigned long rejectedNetworks = 0;
    unsigned long duplicates = 0;
    unsigned long withoutDigits = 0;      // as in LineCounts
    unsigned long firstWithoutDigits = 0; // as in LineCounts
    BAS::DateTime earliest;               // valid-from of the records; invalid when there is none
    BAS::DateTime latest;
    std::vector<std::pair<BAS::String, unsigned long>> networks; // records by network, most first, then by name

    bool readToEnd = false;        // not ended before by whoever asked
    bool changed = false;          // while it was read
    STR::FileVersion version;      // when it was opened
    bool lastLineComplete = true;  // it has its newline; true without lines
    std::uint64_t lineBytes = 0;   // all lines, each with a newline
    std::uint64_t longestLine = 0; // without its newline
    std::uint64_t treeBytes = 0;   // a tree with the records

    // Counts a line that is no record under its reason.
    void count(LineOutcome outcome) {
        switch (outcome) {
        case LineOutcome::INSERTED:
            break;
        case LineOutcome::DUPLICATE:
            ++duplicates;
            break;
        case LineOutcome::WRONG_FIELD_COUNT:
            ++rejectedFields;
            break;
        case LineOutcome::INVALID_DATE_TIME:
            ++rejectedDateTimes;
            break;
        case LineOutcome::INVALID_NUMBER:
            ++rejectedNumbers;
            break;
        case LineOutcome::INVALID_NETWORK_ID:
            ++rejectedNetworks;
            break;
        }
    }

    unsigned long rejected() const {
        return rejectedFields + rejectedDateTimes + rejectedNumbers + rejectedNetworks + duplicates;
    }
};

// One line of a data file as a load would take it. The texts are valid during the call that shows them.
struct FileLine {
    std::uint64_t number = 0;                    // from 1
    LineOutcome outcome = LineOutcome::INSERTED; // never DUPLICATE: lines are looked at one by one
    std::string_view digits;                     // of the number in stored form; this and the rest only of a record
    BAS::DateTime validFrom;
    std::string_view network;
};
using LineVisitor = std::function<void(FileLine const& line)>;

// Told of every line that is not stored, right after its report: its number from 1, what became of it, and its text.
using RejectObserver = std::function<void(unsigned long number, LineOutcome outcome, BAS::String const& line)>;

// Asked now and then during an examination, with what its tree takes so far: false ends it. Meanwhile the summary tells
// of lines and records so far, duplicates among the records.
using GoOn = std::function<bool(std::uint64_t treeBytes)>;

} // namespace DAT::NumberPortability
