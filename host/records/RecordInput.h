// nphost::RecordInput: the records of several files of one format, one file after the other.
//
// Purpose: opens the files in turn, finds the header and the number of fields, and hands out blocks of whole records.
// All files must have the same header, which is handed out once and is in no block. A byte order mark at the beginning
// of the first file belongs to the header, and so do empty lines and lines of blanks before it; those of further files
// are dropped. Without a header the first record that can be read says how many fields there are, wherever it is.
// Units: line numbers are those of the file.
// Ownership: owns the open file.
// Threads: one thread at a time; done and total are safe from any.
// Errors: what ByteSource throws; HostError in one line that names the file: a header that differs, is broken or does
// not come, lines that end in carriage returns alone, or a column that is not there, or there twice.
// Complexity: linear in the bytes.
#pragma once

#include "host/records/BlockReader.h"
#include "host/records/CsvReader.h"

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace nphost {

struct RecordFormat {
    enum class Kind { CSV, JSON };

    Kind kind = Kind::CSV;
    CsvDialect csv;
    bool header = true; // the first record of a CSV file names the columns
    // Behind messages when the first line begins as a JSON object does, and is not read as one.
    std::string_view jsonHint = {};
};

// By the first file's name: a tab for .tsv and .tab, compressed or not, else a comma.
char separatorByName(std::string_view name);

// Blocks, and where they come from.
struct InputBlock {
    RecordBlock block{BlockReader::blockSizeCM};
    std::size_t file = 0;      // which one of the files
    bool lacksNewline = false; // its last record ends without one, and more files follow
    std::size_t fields = 0;    // of each record of CSV; 0: none so far could be read
};

class RecordInput {
  public:
    // "-" is standard input. Reading looks at `stop` where it waits.
    RecordInput(std::vector<std::string> files, RecordFormat const& format);
    RecordInput(RecordInput const&) = delete;
    RecordInput& operator=(RecordInput const&) = delete;

    // Reads the first block, which says what is below. Before next.
    void start();
    bool isEmpty() const { return !holdsFirstM; } // before next: there is no record, nor a header
    std::vector<std::string> const& columns() const { return columnsM; } // of the header; empty without one
    std::size_t fieldCount() const { return fieldCountM; }               // 0 when no record could be read yet
    std::string const& header() const { return headerM; } // with what stands before it, without its line end
    std::string const& headerEnd() const { return headerEndM; }
    std::string const& firstFile() const { return nameOf(firstFileM); } // whose header it is

    // The position from 0 of a column, which is called by its name in the header or else by its position from 1. While
    // the number of fields is not known any position will do; next throws when it proves to be none.
    std::size_t positionOf(std::string const& column);

    // Behind messages about records of which none can be used: what they may be instead.
    std::string const& hint() const { return hintM; }

    // The next block; false at the end of the last file. `block` may be swapped for another one.
    bool next(InputBlock& block, std::atomic<bool> const& stop);

    // As messages call the file.
    std::string const& nameOf(std::size_t file) const { return namesM[file]; }

    // Bytes of the files so far, and of all; 0 where it is unknown.
    std::uint64_t done() const { return doneM.load(std::memory_order_relaxed); }
    std::uint64_t total() const { return totalM; }

  private:
    bool readBlock(InputBlock& block, std::atomic<bool> const* stop);
    bool openNext();
    bool takeFirst(InputBlock& block);
    void checkLineEnds(InputBlock const& block) const;
    bool skipBlankLines(InputBlock& block);
    void takeHeader(InputBlock& block, bool isFirst);
    void countFields(InputBlock const& block);
    std::string headerPlace() const;
    [[noreturn]] void failColumn(std::string const& column) const;
    Record firstRecord(InputBlock const& block);
    void checkHeader(Record const& record, std::size_t file) const;
    void keepHeader(Record const& record);
    std::string hint(std::string_view text) const;

    std::vector<std::string> filesM;
    std::vector<std::string> namesM;
    RecordFormat formatM;
    std::unique_ptr<RecordReader> recordsM; // finds where records end
    std::size_t openedM = 0;                // files so far
    std::unique_ptr<ByteSource> sourceM;
    std::unique_ptr<BlockReader> blocksM;
    bool atFileStartM = false;

    InputBlock firstM; // read by start
    bool holdsFirstM = false;
    bool seenRecordM = false;
    std::size_t firstFileM = 0;
    std::vector<std::string> columnsM;
    std::uint64_t headerLineM = 1;
    std::size_t fieldCountM = 0;
    std::string headerM;
    std::string headerEndM;
    std::string hintM;         // of the first line
    std::string farthestM;     // the last of the columns that were asked for
    std::size_t positionM = 0; // its position

    std::uint64_t totalM = 0;
    std::uint64_t doneBeforeM = 0; // of files that are over
    std::atomic<std::uint64_t> doneM{0};
};

} // namespace nphost
