#include "host/enrich/Enricher.h"

#include "host/base/Instant.h"
#include "host/base/Text.h"
#include "host/fields/Numbers.h"

#include <algorithm>

namespace nphost {

namespace {

bool isBlank(Record const& record) {
    return record.problem == Problem::NONE && record.values.empty();
}

// Whether values can be added to an object that cannot be used.
bool canHoldMembers(Problem problem) {
    return problem == Problem::MISSING_MEMBER || problem == Problem::UNREADABLE_TIME;
}

} // namespace

std::unique_ptr<RecordWriter> Enricher::writerOf(EnrichPlan const& plan) {
    if (plan.format().kind == RecordFormat::Kind::JSON)
        return std::make_unique<NdjsonWriter>(plan.names());
    return std::make_unique<CsvWriter>(plan.format().csv);
}

Enricher::Enricher(EnrichContext const& context)
    : contextM(context), readerM(context.plan.makeReader()), writerM(writerOf(context.plan)),
      describesM(context.plan.describes()), compressorM(context.compression),
      batchM(context.plugIn, recordsCM * context.plan.numberCount()),
      networksM(*writerM, context.plan.added(), context.networks), recordsM(recordsCM),
      questionsM(recordsCM * context.plan.numberCount()),
      valuesM(context.plan.numberCount() * context.plan.added().size()), textsM(valuesM.size()),
      foundM(context.plan.numberCount()) {}

// A worker's thread. The job is this thread's alone until it is given back, and its texts keep their storage from block
// to block.
void Enricher::process(EnrichJob& job) {
    jobM = &job;
    job.result = job.prefix;
    job.rejects.clear();
    job.counts = {};
    job.unreadable.clear();
    if (job.input.block.piece() == RecordBlock::Piece::NONE)
        processRecords();
    else
        processPiece();
    if (job.input.lacksNewline && !job.result.empty() && !job.result.ends_with('\n'))
        job.result += '\n';
    job.output = job.result.empty() ? std::string_view() : compressorM.compress(job.result, job.compressed);
}

// Many records' numbers are looked up together, since a single look-up mostly waits for memory; records are written
// when the batch is back.
void Enricher::processRecords() {
    RecordBlock const& block = jobM->input.block;
    // How many fields there are may have become known only with this block.
    readerM->expectFields(jobM->input.fields);
    readerM->begin(block.text(), block.firstLine());
    while (fill()) {
        if (!contextM.passThrough)
            describesM ? batchM.describe(contextM.method) : batchM.search(contextM.method);
        for (std::size_t i = 0; i < countM; ++i)
            write(recordsM[i], &questionsM[i * contextM.plan.numberCount()]);
    }
}

// A record's values are gone with the next record: take uses them up. Its text and line end lie in the block and stay.
bool Enricher::fill() {
    batchM.clear();
    countM = 0;
    while (countM < recordsCM && readerM->next(recordsM[countM])) {
        take(recordsM[countM], &questionsM[countM * contextM.plan.numberCount()]);
        ++countM;
    }
    return countM > 0;
}

void Enricher::take(Record& record, std::uint32_t* questions) {
    if (isBlank(record))
        return;
    ++jobM->counts.records;
    if (record.problem != Problem::NONE)
        return;
    std::optional<TimeReader::Reading> const reading = contextM.times.read(record.values[0]);
    if (!reading) {
        record.problem = Problem::UNREADABLE_TIME;
        return;
    }
    jobM->counts.ambiguous += reading->doubt == TimeReader::Doubt::AMBIGUOUS ? 1 : 0;
    jobM->counts.impossible += reading->doubt == TimeReader::Doubt::IMPOSSIBLE ? 1 : 0;
    for (std::size_t i = 0; i < contextM.plan.numberCount(); ++i)
        questions[i] = ask(record.line, record.values[i + 1], reading->instant);
}

std::uint32_t Enricher::ask(std::uint64_t line, std::string_view number, BAS::DateTime at) {
    // The number is read where a question would have it; without add that place is used for the next one.
    switch (readNumber(number, contextM.form, batchM.nextNumber())) {
    case NumberKind::NUMBER:
        return static_cast<std::uint32_t>(batchM.add(at));
    case NumberKind::NONE:
        return noneCM;
    default:
        // A few are shown; all are counted when their record is written.
        if (jobM->unreadable.size() < shownUnreadableCM)
            jobM->unreadable.push_back({contextM.input.nameOf(jobM->input.file), line, std::string(number)});
        return unreadableCM;
    }
}

void Enricher::write(Record& record, std::uint32_t const* questions) {
    // Empty lines stay where they are: they belong to the file and to no count.
    if (isBlank(record)) {
        jobM->result.append(record.text).append(record.lineEnd);
        return;
    }
    if (record.problem != Problem::NONE)
        return reject(record);
    std::size_t const numbers = contextM.plan.numberCount();
    bool writable = true;
    // All are answered, even if one cannot be written: each sets its values.
    for (std::size_t i = 0; i < numbers; ++i)
        writable = answer(i, questions[i]) && writable;
    if (!writable) {
        record.problem = Problem::UNWRITABLE;
        return reject(record);
    }
    writerM->write(jobM->result, record, valuesM);
    for (std::size_t i = 0; i < numbers; ++i)
        count(i, questions[i]);
}

// Sets the values of one of the record's numbers; false when one cannot be written.
bool Enricher::answer(std::size_t number, std::uint32_t question) {
    bool const asked = question != noneCM && question != unreadableCM && !contextM.passThrough;
    LookUpBatch::Record const* const record = asked ? batchM.record(question) : nullptr;
    // How the network is written was worked out when it came first: quoting, escapes, and whether it can be at all.
    NetworkFields::Network* const network = record != nullptr ? &networksM.at(record->networkIdM) : nullptr;
    foundM[number] = network;
    std::vector<Added> const& added = contextM.plan.added();
    std::size_t const first = number * added.size();
    bool writable = true;
    for (std::size_t i = 0; i < added.size(); ++i) {
        valuesM[first + i] = {};
        if (asked)
            writable = set(first + i, added[i], question, network) && writable;
    }
    return writable;
}

// A value of a number that was asked; without a network, and where there is none, it stays one that is not there.
bool Enricher::set(std::size_t value, Added added, std::uint32_t question, NetworkFields::Network const* network) {
    // Also where nothing is found: a record may be to come.
    if (added == Added::NEXT_CHANGE) {
        BAS::DateTime const next = batchM.detail(question).nextChange;
        return !next.isValid() || setInstant(value, next);
    }
    if (network == nullptr)
        return true;
    switch (added) {
    case Added::NETWORK:
        valuesM[value] = network->field;
        return network->writable;
    case Added::VALID_FROM:
        return setInstant(value, batchM.record(question)->validFromM);
    case Added::PREFIX:
        return setPrefix(value, question);
    case Added::METHOD:
        return setValue(value, nameOfSearchMethod(contextM.methodInForce));
    case Added::PORTED:
        return setPorted(value, question);
    default: // of the table
        if (std::string const& text = network->detail(added); !text.empty())
            valuesM[value] = text;
        return true;
    }
}

// A number that is taken as it stands may hold more than digits.
bool Enricher::setPrefix(std::size_t value, std::uint32_t question) {
    digitsM.clear();
    for (char const c : batchM.number(question).view()) {
        if (digitsM.size() == batchM.detail(question).prefixDigits)
            break;
        if (isDigit(c))
            digitsM += c;
    }
    return setValue(value, digitsM);
}

bool Enricher::setPorted(std::size_t value, std::uint32_t question) {
    std::optional<bool> const ported = batchM.detail(question).ported();
    if (!ported)
        return true;
    textsM[value].clear();
    bool const writable = writerM->encodeTruth(textsM[value], *ported);
    valuesM[value] = textsM[value];
    return writable;
}

bool Enricher::setValue(std::size_t value, std::string_view text) {
    textsM[value].clear();
    bool const writable = writerM->encode(textsM[value], text);
    // A view of this number's own place: the writer reads all of them at the end.
    valuesM[value] = textsM[value];
    return writable;
}

bool Enricher::setInstant(std::size_t value, BAS::DateTime at) {
    return setValue(value, InstantDigits(at).view());
}

void Enricher::count(std::size_t number, std::uint32_t question) {
    NetworkFields::Network* const network = foundM[number];
    ++(question == noneCM         ? jobM->counts.withoutNumber
       : question == unreadableCM ? jobM->counts.unreadable
       : network != nullptr       ? jobM->counts.found
                                  : jobM->counts.notFound);
    if (network != nullptr)
        ++network->numbers;
}

void Enricher::reject(Record const& record) {
    if (contextM.listRejects) {
        beginReject(record.line, record.problem);
        CsvWriter::appendInQuotes(jobM->rejects, record.text);
        jobM->rejects += "\"\n";
    }
    ++jobM->counts.problems[static_cast<std::size_t>(record.problem)];
    if (contextM.keep)
        keepUnused(record);
}

void Enricher::keepUnused(Record const& record) {
    // Nothing of an answer must show that was made before the record proved unusable.
    std::fill(valuesM.begin(), valuesM.end(), std::string_view());
    if (contextM.plan.format().kind == RecordFormat::Kind::CSV || canHoldMembers(record.problem))
        writerM->write(jobM->result, record, valuesM);
    else
        jobM->result.append(record.text).append(record.lineEnd);
}

void Enricher::beginReject(std::uint64_t line, Problem problem) {
    // The record goes between quotation marks whatever is in it; they close where it is over, perhaps blocks later.
    beginRejectRow(jobM->rejects, contextM.input.nameOf(jobM->input.file), line, nameOf(problem));
    jobM->rejects += '"';
}

// A line that is longer than a block is rejected as it comes; the blocks before and after this one have the rest. It
// counts when it is over, so that its row is whole when the run stops for it.
void Enricher::processPiece() {
    RecordBlock const& block = jobM->input.block;
    bool const isLast = block.piece() == RecordBlock::Piece::LAST;
    Record piece;
    piece.problem = Problem::TOO_LONG;
    piece.text = block.text();
    if (isLast) {
        setText(piece, block.text());
        ++jobM->counts.records;
        ++jobM->counts.problems[static_cast<std::size_t>(Problem::TOO_LONG)];
    }
    if (contextM.keep)
        isLast ? keepUnused(piece) : void(jobM->result += block.text());
    if (!contextM.listRejects)
        return;
    if (block.piece() == RecordBlock::Piece::FIRST)
        beginReject(block.firstLine(), Problem::TOO_LONG);
    CsvWriter::appendInQuotes(jobM->rejects, piece.text);
    if (isLast)
        jobM->rejects += "\"\n";
}

} // namespace nphost
