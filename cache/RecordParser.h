// DAT::NumberPortability::RecordParser: takes the lines of a data file apart.
//
// Purpose: a line gives a value, a record or what is wrong with the line. The parser inserts, reports and keeps
// nothing: LineReporter makes the report of such a value, when it is due.
// Units and ranges: positions in a line are bytes, from 0.
// Ownership: borrows the dialling codes' texts. The views of a parsed line are of the line and of the parser; they are
// valid until either ends or changes, or the next parse. A LineFault is a value of its own.
// Threads: one at a time; a parser is cheap, so every load has its own. Errors: std::bad_alloc. Complexity: linear in
// the line.
#pragma once

#include "cache/DataSummary.h"
#include "cache/DiallingCodes.h"
#include "store/Digits.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace DAT::NumberPortability {

// A word by its place in a line, and so in every copy of the line.
struct Column {
    std::size_t begin = 0;
    std::size_t length = 0;

    std::string_view of(std::string_view line) const { return line.substr(begin, length); }
};

// What is wrong with a line, as far as its report needs it: the line is not taken apart again.
struct LineFault {
    LineOutcome outcome = LineOutcome::WRONG_FIELD_COUNT;
    std::size_t found = 0;  // words in all
    std::size_t wanted = 0; // words that a record has
    Column number, validFrom, network;
};

struct ParsedLine {
    LineOutcome outcome = LineOutcome::WRONG_FIELD_COUNT; // INSERTED: the line is a record; nothing was inserted
    std::size_t found = 0;
    std::size_t wanted = 0;
    std::string_view line;
    std::array<std::string_view, 3> words; // number, valid-from, network; empty beyond those found

    // The record; all of it only if the line is one.
    std::string_view number; // in stored form
    PBC::Digits key;         // the first digits of it
    BAS::DateTime validFrom;
    bool hasDigit = false; // the number as the line has it

    // Whether the key is all that the number in stored form says: it is nothing but digits, and not too many.
    bool isKeyAll() const { return key.length() == number.size(); }

    Column column(std::size_t word) const {
        return {word < found ? static_cast<std::size_t>(words[word].data() - line.data()) : 0, words[word].size()};
    }
    LineFault fault() const { return {outcome, found, wanted, column(0), column(1), column(2)}; }
};

class RecordParser {
  public:
    // `columns` is how many words a line must have. The first three are the record; with fewer no line is one.
    RecordParser(DiallingCodes const& codes, std::uint32_t columns) : codesM(codes), columnsM(columns) {}

    ParsedLine parse(std::string_view line);

  private:
    LineOutcome takeRecord(ParsedLine& parsed);

    DiallingCodes codesM;
    std::uint32_t columnsM;
    std::string numberM; // of the line parsed last, where it had to be rewritten
};

} // namespace DAT::NumberPortability
