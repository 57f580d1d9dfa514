// nphost::Record and RecordReader: records of a text file, one after the other, with every byte of theirs.
//
// Purpose: what the readers of the formats (CsvReader, JsonReader) have in common. A reader is given a text of whole
// records and finds the records in it with the values that are wanted of each. text and lineEnd of all records one
// after the other are the text that was given, byte by byte. A record that is broken is a record with a
// problem: reading goes on with the next line.
// Units: line is the number of the record's first line, from 1 at the beginning of the file.
// Ownership: text and lineEnd of a record refer to the text that was given, and are valid as long as that is. Its
// values refer to the text or to the reader, and are valid until the next call.
// Threads: a reader a thread.
// Errors: std::bad_alloc.
// Complexity: linear in the text.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace nphost {

// What is wrong with a record.
enum class Problem : std::uint8_t {
    NONE,
    FIELD_COUNT,     // more or fewer fields than the header or the first record
    BROKEN_QUOTES,   // a quotation mark that does not end, or stands inside a field
    BROKEN_JSON,     // no JSON object
    MISSING_MEMBER,  // a member that is asked for is not there, or there twice
    NAME_TAKEN,      // the object has a member of the name of one to be added
    TOO_LONG,        // longer than a block
    UNREADABLE_TIME, // the instant cannot be read
    UNWRITABLE,      // a value holds the separator, and quoting is switched off
};
constexpr std::size_t problemsCM = static_cast<std::size_t>(Problem::UNWRITABLE) + 1;

// As reports and rejects call it: one word with hyphens.
constexpr char const* nameOf(Problem problem) {
    constexpr std::array names = {"none",       "field-count", "broken-quotes", "broken-json", "missing-member",
                                  "name-taken", "long-record", "bad-time",      "unwritable"};
    static_assert(names.size() == problemsCM);
    return names[static_cast<std::size_t>(problem)];
}

struct Record {
    std::string_view text;    // without its line end; empty for an empty line
    std::string_view lineEnd; // "\n", "\r\n", or nothing at the end of the file
    std::uint64_t line = 0;
    Problem problem = Problem::NONE;
    std::vector<std::string_view> values; // those wanted, in their order; empty when there is a problem
};

class RecordReader {
  public:
    RecordReader() = default;
    RecordReader(RecordReader const&) = delete;
    RecordReader& operator=(RecordReader const&) = delete;
    virtual ~RecordReader() = default;

    // How many bytes at the front of the text are whole records, as next would find them if more text followed.
    virtual std::size_t wholeRecords(std::string_view text) = 0;

    // From now on records have that many fields, where they have fields at all; others have FIELD_COUNT.
    virtual void expectFields(std::size_t) {}

    // From now on records of this text, which must be followed by paddingCM readable bytes of any value.
    static constexpr std::size_t paddingCM = 64;
    virtual void begin(std::string_view text, std::uint64_t firstLine) = 0;

    // False at the end of the text. What is not ended there is a record too.
    virtual bool next(Record& record) = 0;
};

// The length of the first line with its newline; 0 when the text has no newline.
inline std::size_t lineLength(std::string_view text) {
    std::size_t const newline = text.find('\n');
    return newline == std::string_view::npos ? 0 : newline + 1;
}

// Makes `record` of a text that may end in a newline, or a carriage return and a newline.
inline void setText(Record& record, std::string_view whole) {
    std::size_t length = whole.size();
    if (whole.ends_with('\n'))
        length -= whole.ends_with("\r\n") ? 2 : 1;
    record.text = whole.substr(0, length);
    record.lineEnd = whole.substr(length);
}

} // namespace nphost
