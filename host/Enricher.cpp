#include "host/Enricher.h"

#include "host/Explanation.h"
#include "host/Instant.h"
#include "host/Numbers.h"

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

std::string_view setDigits(std::string& text, BAS::DateTime at) {
    text.resize(instantDigitsCM);
    at.toDigits(text.data());
    return text;
}

} // namespace

std::unique_ptr<RecordWriter> Enricher::writerOf(EnrichPlan const& plan) {
    if (plan.format().kind == RecordFormat::Kind::JSON)
        return std::make_unique<JsonWriter>(plan.names());
    return std::make_unique<CsvWriter>(plan.format().csv);
}

Enricher::Enricher(EnrichContext const& context)
    : contextM(context), readerM(context.plan.makeReader()), writerM(writerOf(context.plan)),
      explainsM(context.plan.explains()), compressorM(context.compression),
      batchM(context.plugIn, recordsCM * context.plan.numberCount()), recordsM(recordsCM),
      questionsM(recordsCM * context.plan.numberCount()),
      valuesM(context.plan.numberCount() * context.plan.added().size()), textsM(valuesM.size()) {}

void Enricher::process(EnrichJob& job) {
    jobM = &job;
    job.result = job.prefix;
    job.rejects.clear();
    job.counts = {};
    if (job.input.block.piece() == RecordBlock::Piece::NONE)
        processRecords();
    else
        processPiece();
    if (job.input.lacksNewline && !job.result.empty() && !job.result.ends_with('\n'))
        job.result += '\n';
    job.output = job.result.empty() ? std::string_view() : compressorM.compress(job.result, job.compressed);
}

void Enricher::processRecords() {
    RecordBlock const& block = jobM->input.block;
    readerM->begin(block.text(), block.firstLine());
    while (fill()) {
        if (!contextM.passThrough)
            batchM.search(contextM.method);
        for (std::size_t i = 0; i < countM; ++i)
            write(recordsM[i], &questionsM[i * contextM.plan.numberCount()]);
    }
}

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
        questions[i] = ask(record.values[i + 1], reading->instant);
}

std::uint32_t Enricher::ask(std::string_view number, BAS::DateTime at) {
    BAS::String& place = batchM.nextNumber();
    if (contextM.form != nullptr) {
        if (!contextM.form->toStored(number, place))
            return noneCM;
    } else {
        if (!hasDigit(number))
            return noneCM;
        place.assign(number.data(), number.size());
    }
    return static_cast<std::uint32_t>(batchM.add(at));
}

void Enricher::write(Record& record, std::uint32_t const* questions) {
    if (isBlank(record)) {
        jobM->result.append(record.text).append(record.lineEnd);
        return;
    }
    if (record.problem != Problem::NONE)
        return reject(record);
    std::size_t const numbers = contextM.plan.numberCount();
    for (std::size_t i = 0; i < numbers; ++i)
        answer(questions[i], i * contextM.plan.added().size());
    if (!writerM->write(jobM->result, record, valuesM)) {
        record.problem = Problem::UNWRITABLE;
        return reject(record);
    }
    for (std::size_t i = 0; i < numbers; ++i)
        count(questions[i]);
}

// Sets the values of one number, the first of which is `value`.
void Enricher::answer(std::uint32_t question, std::size_t value) {
    bool const asked = question != noneCM && !contextM.passThrough;
    LookUpBatch::Record const* const record = asked ? batchM.record(question) : nullptr;
    std::size_t at = value;
    for (Added const added : contextM.plan.added()) {
        valuesM[at] = {};
        if (record != nullptr && added == Added::NETWORK)
            valuesM[at] = record->networkIdM.view();
        else if (record != nullptr && added == Added::VALID_FROM)
            valuesM[at] = setDigits(textsM[at], record->validFromM);
        else if (record != nullptr && added == Added::METHOD)
            valuesM[at] = nameOfSearchMethod(contextM.methodInForce);
        ++at;
    }
    if (asked && explainsM)
        explain(question, value);
}

void Enricher::explain(std::uint32_t question, std::size_t value) {
    BAS::String const& number = batchM.number(question);
    BAS::DateTime const at = batchM.instant(question);
    auto const prefixes = contextM.plugIn.explain(number);
    Explanation const explanation(prefixes, number);
    for (Added const added : contextM.plan.added()) {
        if (added == Added::PREFIX) {
            if (auto const choice = explanation.choose(contextM.methodInForce, at); choice.record != nullptr)
                valuesM[value] = textsM[value] = choice.prefix->key.str();
        } else if (added == Added::NEXT_CHANGE) {
            if (auto const change = explanation.nextChange(contextM.methodInForce, at))
                valuesM[value] = setDigits(textsM[value], change->at);
        }
        ++value;
    }
}

void Enricher::count(std::uint32_t question) {
    if (question == noneCM) {
        ++jobM->counts.withoutNumber;
        return;
    }
    LookUpBatch::Record const* const record = contextM.passThrough ? nullptr : batchM.record(question);
    ++(record != nullptr ? jobM->counts.found : jobM->counts.notFound);
    if (record != nullptr)
        networksM.count(record->networkIdM);
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
    std::fill(valuesM.begin(), valuesM.end(), std::string_view());
    if (contextM.plan.format().kind == RecordFormat::Kind::CSV || canHoldMembers(record.problem))
        writerM->write(jobM->result, record, valuesM);
    else
        jobM->result.append(record.text).append(record.lineEnd);
}

void Enricher::beginReject(std::uint64_t line, Problem problem) {
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
