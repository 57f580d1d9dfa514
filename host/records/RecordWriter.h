// nphost::RecordWriter: writes records as they came, with values added.
//
// Purpose: the bytes of the record stay; what is added goes behind the last field of a CSV record, or before the
// closing brace of a JSON object, written as the format needs it. A value that is not there is an empty field, or null.
// Ownership: appends to the caller's text. Threads: none inside.
// Errors: std::bad_alloc. Complexity: linear in the record.
// Source: RFC 4180, RFC 8259.
#pragma once

#include "host/records/CsvReader.h"

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace nphost {

class RecordWriter {
  public:
    RecordWriter() = default;
    RecordWriter(RecordWriter const&) = delete;
    RecordWriter& operator=(RecordWriter const&) = delete;
    virtual ~RecordWriter() = default;

    // Appends a value as it stands in a record. False, and nothing appended, when it cannot: it holds the separator,
    // and quoting is switched off.
    virtual bool encode(std::string& out, std::string_view value) const = 0;
    // The same of what is true or false: as a word, or as JSON has it.
    virtual bool encodeTruth(std::string& out, bool value) const { return encode(out, value ? "true" : "false"); }

    // Appends a record with values that encode made. One without data is not there.
    virtual void write(std::string& out, Record const& record, std::span<std::string_view const> values) const = 0;
};

class CsvWriter : public RecordWriter {
  public:
    explicit CsvWriter(CsvDialect dialect) : dialectM(dialect) {}

    bool encode(std::string& out, std::string_view value) const override { return appendField(out, value, dialectM); }
    void write(std::string& out, Record const& record, std::span<std::string_view const> values) const override;

    // One field as it must stand in a record; false when it cannot.
    static bool appendField(std::string& out, std::string_view field, CsvDialect dialect);

    // A text, or a part of one, as it must stand between quotation marks.
    static void appendInQuotes(std::string& out, std::string_view text);

  private:
    CsvDialect dialectM;
};

// The beginning of a row that lists a rejected record: file, line and reason, and a comma.
void beginRejectRow(std::string& out, std::string_view file, std::uint64_t line, char const* reason);

class NdjsonWriter : public RecordWriter {
  public:
    // The names of the values.
    explicit NdjsonWriter(std::vector<std::string> const& names);

    bool encode(std::string& out, std::string_view value) const override;
    bool encodeTruth(std::string& out, bool value) const override;
    void write(std::string& out, Record const& record, std::span<std::string_view const> values) const override;

  private:
    std::vector<std::string> namesM; // as they stand in the object, with what surrounds them
};

} // namespace nphost
