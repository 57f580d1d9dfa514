// nphost::CsvReader: records of comma-separated values, or of values separated by any other byte.
//
// Purpose: RFC 4180: fields in quotation marks may hold separators, line breaks and doubled quotation marks. Lines end
// in LF or CRLF; a carriage return elsewhere is a byte like others, as are NUL and what is not UTF-8. Blanks count.
// A quotation mark inside a field that does not begin with one, a byte between the closing quotation mark and the
// separator, or a quotation mark that is never closed makes that line, and no further one, a record with
// BROKEN_QUOTES. Without quoting a quotation mark is a byte like others. An empty line is a record without values.
// Units: columns count from 0.
// Ownership, threads: as RecordReader's; values that were in quotation marks lie in the reader.
// Errors: std::bad_alloc; what is wrong with a record is its problem, and no error.
// Complexity: a record without quotation marks is split where it lies; others go through the library libcsv.
// Source: RFC 4180.
#pragma once

#include "host/records/Record.h"

#include <csv.h>
#include <limits>
#include <string>

namespace nphost {

struct CsvDialect {
    char separator = ','; // neither quotation mark nor line end
    bool quotes = true;
};

// What separates fields: one byte of ASCII, neither quotation mark nor line end; or "tab". HostError for any other
// text.
char separatorOf(std::string_view text);

class CsvReader : public RecordReader {
  public:
    // All fields are wanted; records may have any number of them.
    explicit CsvReader(CsvDialect dialect);
    // These different columns are wanted; a record that has not `fields` fields, more than any of them, is one with
    // FIELD_COUNT. 0 fields: they are not known yet, and must be when a record is not broken.
    CsvReader(CsvDialect dialect, std::vector<std::size_t> const& wanted, std::size_t fields);
    ~CsvReader() override;

    std::size_t wholeRecords(std::string_view text) override;
    void expectFields(std::size_t fields) override { fieldsM = fields; }
    void begin(std::string_view text, std::uint64_t firstLine) override;
    bool next(Record& record) override;

  private:
    static constexpr std::size_t anyCM = std::numeric_limits<std::size_t>::max();
    static constexpr std::size_t unwantedCM = anyCM;

    struct Range {
        std::size_t begin = 0;
        std::size_t length = 0;
    };
    enum class Cut { WHOLE, BROKEN, UNFINISHED };

    bool isPlain(std::string_view line) const { return !dialectM.quotes || line.find('"') == std::string_view::npos; }
    void restart();
    Cut parse(std::string_view text, std::size_t& length);
    void split(Record& record) const;
    void keepPlain(std::size_t column, std::string_view field, Record& record) const;
    void finishFields(std::size_t count, Record& record) const;
    void takeQuoted(std::string_view text, Record& record);
    void setValues(Record& record) const;
    void keepField(std::string_view field);
    std::size_t slotOf(std::size_t column) const;

    CsvDialect dialectM;
    std::size_t fieldsM = anyCM;
    std::vector<std::size_t> slotsM; // of each column up to the last one wanted; none: all are wanted
    std::size_t wantedM = 0;
    csv_parser parserM{};

    std::string_view restM;
    std::uint64_t lineM = 0;

    std::string unquotedM; // the wanted fields of the record that is being parsed
    std::vector<Range> rangesM;
    std::size_t columnM = 0;
    bool rowEndedM = false;
};

} // namespace nphost
