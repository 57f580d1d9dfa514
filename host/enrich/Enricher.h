// nphost::Enricher: one thread's part of an enrichment: reads a block's records, looks numbers up, writes the result.
//
// Purpose: turns a block of records into the text that stands for it in the output, and into the rows of those records
// that cannot be used. Look-ups are made many at once. A row of a rejected record is CSV (RFC 4180): file, line, reason
// and the whole record in quotation marks.
// Ownership: borrows everything of its context.
// Threads: an enricher a thread; they may share a context.
// Errors: std::bad_alloc; what the plug-in reports goes to the log.
// Complexity: a look-up a number; prefix, next change and whether it is ported make each a little longer.
#pragma once

#include "host/enrich/EnrichPlan.h"
#include "host/enrich/EnrichSummary.h"
#include "host/enrich/NetworkFields.h"
#include "host/fields/NumberForm.h"
#include "host/fields/TimeReader.h"
#include "host/module/LookUpBatch.h"
#include "host/records/Compression.h"
#include "host/records/RecordWriter.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace nphost {

// What all enrichers of a run have in common.
struct EnrichContext {
    LoadedPlugIn& plugIn;
    EnrichPlan const& plan;
    RecordInput const& input; // for the names of its files
    TimeReader const& times;
    NetworkTable const* networks;       // null: nothing of it is wanted
    NumberForm const* form;             // null: numbers are taken as they stand
    std::optional<unsigned int> method; // none: as configured
    unsigned int methodInForce;         // the same, or what is configured
    Compression compression;
    bool passThrough; // look nothing up
    bool keep;        // records that cannot be used stay in the output
    bool listRejects; // and have their rows
};

// A block on its way from the reader to the writer.
struct EnrichJob {
    InputBlock input;
    std::string prefix; // stands before the first record
    std::string result;
    std::string compressed;
    std::string_view output; // the one of the two that is to be written
    std::string rejects;
    EnrichCounts counts;
    std::vector<UnreadableNumber> unreadable; // the first ones
};

constexpr std::string_view rejectsHeaderCM = "file,line,reason,record\n";

class Enricher {
  public:
    explicit Enricher(EnrichContext const& context);
    Enricher(Enricher const&) = delete;
    Enricher& operator=(Enricher const&) = delete;

    void process(EnrichJob& job);

    NetworkFields const& networks() const { return networksM; }

  private:
    static constexpr std::size_t recordsCM = 256;       // looked up together
    static constexpr std::uint32_t noneCM = UINT32_MAX; // no question: no number; one that cannot be read
    static constexpr std::uint32_t unreadableCM = noneCM - 1;

    static std::unique_ptr<RecordWriter> writerOf(EnrichPlan const& plan);

    void processRecords();
    void processPiece();
    bool fill();
    void take(Record& record, std::uint32_t* questions);
    std::uint32_t ask(std::uint64_t line, std::string_view number, BAS::DateTime at);
    void write(Record& record, std::uint32_t const* questions);
    bool answer(std::size_t number, std::uint32_t question);
    bool set(std::size_t value, Added added, std::uint32_t question, NetworkFields::Network const* network);
    bool setPrefix(std::size_t value, std::uint32_t question);
    bool setPorted(std::size_t value, std::uint32_t question);
    bool setValue(std::size_t value, std::string_view text);
    bool setInstant(std::size_t value, BAS::DateTime at);
    void count(std::size_t number, std::uint32_t question);
    void reject(Record const& record);
    void beginReject(std::uint64_t line, Problem problem);
    void keepUnused(Record const& record);

    EnrichContext contextM;
    std::unique_ptr<RecordReader> readerM;
    std::unique_ptr<RecordWriter> writerM;
    bool const describesM; // some of what is added is not told by a search
    Compressor compressorM;
    LookUpBatch batchM;
    NetworkFields networksM;
    EnrichJob* jobM = nullptr; // the one that is being processed

    // The records that are looked up together, and where in the batch their numbers are.
    std::size_t countM = 0;
    std::vector<Record> recordsM;
    std::vector<std::uint32_t> questionsM;

    // What is added to one record, and the texts that are not elsewhere.
    std::vector<std::string_view> valuesM;
    std::vector<std::string> textsM;
    std::string digitsM;
    std::vector<NetworkFields::Network*> foundM; // of each number; null: not found
};

} // namespace nphost
