// nphost::JsonReader: records of newline-delimited JSON, an object a line.
//
// Purpose: finds the values of named members of each object: texts unescaped, integers and other numbers in digits,
// with an exponent where they would be longer than 32 characters; null, true and false are empty; objects and arrays
// are their own text, without blanks. A line that is no JSON object in UTF-8 is a record with BROKEN_JSON; one that has
// a member of a forbidden name already, one with NAME_TAKEN, whatever else is wrong with it; one that lacks a wanted
// member, or has it twice, one with MISSING_MEMBER. An empty line, or one of blanks, is a record without values.
// Units: integers beyond 64 bits count as broken.
// Ownership, threads: as RecordReader's; the values lie in the text or in the reader.
// Errors: std::bad_alloc; what is wrong with a record is its problem, and no error.
// Complexity: linear in the line, which is parsed once by the library simdjson.
// Source: RFC 8259 (JSON).
#pragma once

#include "host/records/Record.h"

#include <array>
#include <memory>
#include <string>

namespace nphost {

class JsonReader : public RecordReader {
  public:
    JsonReader(std::vector<std::string> wanted, std::vector<std::string> forbidden);
    ~JsonReader() override;

    std::size_t wholeRecords(std::string_view text) override { return text.rfind('\n') + 1; }
    void begin(std::string_view text, std::uint64_t firstLine) override;
    bool next(Record& record) override;

  private:
    static constexpr std::size_t numberLengthCM = 32;

    struct Library; // simdjson's parser, whose header takes long to compile

    Problem read(Record& record);

    std::vector<std::string> wantedM;
    std::vector<std::string> forbiddenM;
    std::unique_ptr<Library> libraryM;
    std::vector<std::array<char, numberLengthCM>> numbersM; // of each wanted member, if it is one
    std::vector<std::string> listsM;                        // the same of objects, arrays and very long numbers
    std::string_view restM;
    std::uint64_t lineM = 0;
};

} // namespace nphost
