// nphost::LookUpStream: many look-ups in one request, answered while they come in.
//
// Purpose: questions are lines of JSON, {"number","at","method","id"} of which only the number is required, or of CSV
// under a header that names columns number, at and method. Each line is answered by a line, in order: in JSON by the
// object of a single look-up, with the id as it came, in CSV by AnswerWriter::csvHeadCM. A line that cannot be answered
// has its error there, {"line","error","id"}, or in CSV a comment "# line N: ...", and reading goes on. Instants and
// methods that a line does not say are those of the request. An empty line is none; no field of
// CSV goes on in the next line.
// Units: lines count from 1; one may have 64 KiB, a longer one ends the stream with an error.
// Ownership: borrows the parts; owns a batch of look-ups and what has come of a line. Its memory is bounded.
// Threads: one. Errors: std::bad_alloc. Complexity: a look-up a line, many at once.
#pragma once

#include "host/fields/Numbers.h"
#include "host/http/Answers.h"
#include "host/http/Api.h"
#include "host/module/LookUpBatch.h"
#include "host/records/Record.h"

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace nphost {

class LookUpStream : public BodySink {
  public:
    enum class Format { NDJSON, CSV };

    struct Defaults {
        std::optional<BAS::DateTime> at; // none: now
        std::optional<unsigned int> method;
        bool normalise = false;
    };

    LookUpStream(FrontParts const& parts, AnswerWriter& answers, Format format, Defaults const& defaults);
    ~LookUpStream() override;

    std::uint64_t mostBytes() const override;
    char const* streams() const override;
    bool take(std::string_view piece, std::string& out) override;
    Step end(std::string& out) override;
    Counts takeCounts() override;

  private:
    static constexpr std::size_t batchCM = 128;
    static constexpr std::size_t mostLineBytesCM = 64UL * 1024;

    struct Question {
        std::uint64_t line = 0;
        std::string id;    // as JSON
        std::string error; // empty: the batch of its method answers it
        std::size_t method = 0;
        std::size_t place = 0; // there
    };
    enum class Column : std::uint8_t { NONE, NUMBER, AT, METHOD };
    struct Library; // simdjson's parser, whose header takes long to compile

    void readLines(std::string_view text, std::string& out);
    void readJson(std::string_view line, std::size_t readable);
    void readAnyJson(std::string_view line, std::size_t readable, Question& question);
    void readCsv(Record const& record);
    bool readCsvHead(Record const& record, std::string& out);
    void ask(std::string_view number, std::optional<std::string_view> at, std::optional<std::string_view> method);
    Question& nextQuestion(std::uint64_t line);
    LookUpBatch& batch(std::size_t method);
    void answer(std::string& out);
    void writeError(std::string& out, Question const& question) const;

    FrontParts const& partsM;
    AnswerWriter& answersM;
    Format const formatM;
    Defaults const defaultsM;
    std::unique_ptr<Library> libraryM;
    std::unique_ptr<RecordReader> csvM;
    std::vector<Column> columnsM;                                           // as the header names them
    std::array<std::unique_ptr<LookUpBatch>, searchMethodsCM + 1> batchesM; // a method each; the last: as configured
    std::vector<Question> questionsM;
    std::size_t askedM = 0;
    BAS::DateTime nowM; // of the lines that came together
    std::string restM;  // the beginning of a line, of which more is to come
    std::string textM;  // whole lines, and bytes that may be read behind them
    std::uint64_t lineM = 0;
    bool brokenM = false; // nothing more is read
    Counts countsM;
};

} // namespace nphost
