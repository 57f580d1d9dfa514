#include "host/http/LookUpStream.h"

#include "host/base/JsonWriter.h"
#include "host/base/Text.h"
#include "host/http/Questions.h"
#include "host/records/CsvReader.h"
#include "host/service/Front.h"
#include "host/service/QuestionError.h"

#include <algorithm>
#include <limits>
#include <simdjson.h>
#include <utility>

namespace nphost {

static_assert(RecordReader::paddingCM >= simdjson::SIMDJSON_PADDING);

struct LookUpStream::Library {
    simdjson::ondemand::parser parser;
};

LookUpStream::LookUpStream(FrontParts const& parts, AnswerWriter& answers, Format format, Defaults const& defaults)
    : partsM(parts), answersM(answers), formatM(format), defaultsM(defaults),
      libraryM(format == Format::NDJSON ? std::make_unique<Library>() : nullptr),
      questionsM(batchCM) {}

LookUpStream::~LookUpStream() = default;

std::uint64_t LookUpStream::mostBytes() const {
    return std::numeric_limits<std::uint64_t>::max();
}

char const* LookUpStream::streams() const {
    return formatM == Format::NDJSON ? "application/x-ndjson" : "text/csv; charset=utf-8";
}

BodySink::Counts LookUpStream::takeCounts() {
    return std::exchange(countsM, {});
}

bool LookUpStream::take(std::string_view piece, std::string& out) {
    std::size_t const whole = piece.rfind('\n') + 1;
    if (whole > 0) {
        textM.assign(restM).append(piece.substr(0, whole));
        restM.clear();
        readLines(textM, out);
        piece.remove_prefix(whole);
    }
    restM.append(piece);
    if (restM.size() > mostLineBytesCM && !brokenM) {
        nextQuestion(lineM + 1).error = "the line is longer than 64 KiB; nothing after it is read";
        answer(out);
        brokenM = true;
    }
    return !brokenM;
}

Step LookUpStream::end(std::string& out) {
    if (!brokenM && !restM.empty()) {
        textM.assign(restM);
        readLines(textM, out);
    }
    return {};
}

// Whatever has come in is answered before more is waited for.
void LookUpStream::readLines(std::string_view text, std::string& out) {
    std::size_t const length = text.size();
    textM.append(RecordReader::paddingCM, ' ');
    text = std::string_view(textM).substr(0, length);
    answersM.begin();
    if (formatM == Format::NDJSON) {
        while (!text.empty()) {
            std::string_view line = text.substr(0, text.find('\n'));
            std::size_t const readable = text.size() + RecordReader::paddingCM;
            text.remove_prefix(std::min(line.size() + 1, text.size()));
            ++lineM;
            if (line.ends_with('\r'))
                line.remove_suffix(1);
            if (trimmed(line).empty())
                continue;
            readJson(line, readable);
            if (askedM == questionsM.size())
                answer(out);
        }
    } else {
        if (!csvM)
            csvM = std::make_unique<CsvReader>(CsvDialect());
        csvM->begin(text, lineM + 1);
        Record record;
        while (!brokenM && csvM->next(record)) {
            lineM = record.line;
            if (record.text.empty())
                continue;
            if (columnsM.empty()) {
                if (!readCsvHead(record, out))
                    return;
                continue;
            }
            readCsv(record);
            if (askedM == questionsM.size())
                answer(out);
        }
    }
    answer(out);
}

// A member that nobody knows may be a misspelt one, and the answer another than was meant.
void LookUpStream::readJson(std::string_view line, std::size_t readable) {
    namespace ondemand = simdjson::ondemand;
    Question& question = nextQuestion(lineM);
    std::optional<std::string_view> number;
    std::optional<std::string_view> at;
    std::optional<std::string_view> method;
    try {
        ondemand::document document = libraryM->parser.iterate(line.data(), line.size(), readable);
        for (ondemand::field field : document.get_object()) {
            std::string_view const name = field.unescaped_key();
            ondemand::value value = field.value();
            std::optional<std::string_view>* const place =
                name == "number" ? &number : (name == "at" ? &at : (name == "method" ? &method : nullptr));
            if (place != nullptr) {
                if (*place)
                    throw QuestionError("'" + std::string(name) + "' comes twice");
                if (place != &number && value.is_null())
                    continue;
                if (value.type() != ondemand::json_type::string)
                    throw QuestionError("'" + std::string(name) + "' must be a text");
                *place = value.get_string();
            } else if (name == "id") {
                question.id.clear();
                // As it came, be it a text, a number or an object.
                question.id = simdjson::to_json_string(value).value();
            } else {
                throw QuestionError("there is no member '" + shortened(name) +
                                    "'; the members are number, at, method and id");
            }
        }
        if (!document.at_end())
            throw QuestionError("something follows the object");
        if (!number)
            throw QuestionError("the member 'number' is missing");
        ask(*number, at, method);
    } catch (simdjson::simdjson_error const&) {
        question.error = "the line is no JSON object";
    } catch (QuestionError const& error) {
        question.error = error.what();
    }
}

bool LookUpStream::readCsvHead(Record const& record, std::string& out) {
    for (std::string_view const name : record.values) {
        std::string_view const bare = trimmed(name);
        Column const column = bare == "number"   ? Column::NUMBER
                              : bare == "at"     ? Column::AT
                              : bare == "method" ? Column::METHOD
                                                 : Column::NONE;
        if (column == Column::NONE || std::find(columnsM.begin(), columnsM.end(), column) != columnsM.end()) {
            out.append("# line 1: the header must name columns number, at and method, each once\r\n");
            brokenM = true;
            return false;
        }
        columnsM.push_back(column);
    }
    if (std::find(columnsM.begin(), columnsM.end(), Column::NUMBER) == columnsM.end()) {
        out.append("# line 1: the header names no column number\r\n");
        brokenM = true;
        return false;
    }
    out += AnswerWriter::csvHeadCM;
    return true;
}

void LookUpStream::readCsv(Record const& record) {
    Question& question = nextQuestion(record.line);
    try {
        if (record.problem != Problem::NONE || record.values.size() != columnsM.size())
            throw QuestionError(record.problem == Problem::BROKEN_QUOTES ? "its quotation marks are broken"
                                                                         : "it has not as many fields as the header");
        std::string_view number;
        std::optional<std::string_view> at;
        std::optional<std::string_view> method;
        for (std::size_t i = 0; i < columnsM.size(); ++i) {
            std::string_view const value = trimmed(record.values[i]);
            if (columnsM[i] == Column::NUMBER)
                number = value;
            else if (!value.empty())
                (columnsM[i] == Column::AT ? at : method) = value;
        }
        ask(number, at, method);
    } catch (QuestionError const& error) {
        question.error = error.what();
    }
}

void LookUpStream::ask(std::string_view number, std::optional<std::string_view> at,
                       std::optional<std::string_view> method) {
    std::optional<unsigned int> const wanted = method ? readAskedMethod(*method) : defaultsM.method;
    BAS::DateTime const when =
        at ? readAskedInstant(*at, partsM.clock) : (defaultsM.at ? *defaultsM.at : partsM.clock.now());
    Question& question = questionsM[askedM - 1];
    question.method = wanted.value_or(searchMethodsCM);
    LookUpBatch& questions = batch(question.method);
    readAskedNumber(number, defaultsM.normalise, partsM.numbers, questions.nextNumber());
    question.place = questions.add(when);
}

LookUpBatch& LookUpStream::batch(std::size_t method) {
    std::unique_ptr<LookUpBatch>& made = batchesM[method];
    if (!made)
        made = std::make_unique<LookUpBatch>(partsM.plugIn, batchCM);
    return *made;
}

LookUpStream::Question& LookUpStream::nextQuestion(std::uint64_t line) {
    Question& question = questionsM[askedM++];
    question.line = line;
    question.id.clear();
    question.error.clear();
    return question;
}

void LookUpStream::answer(std::string& out) {
    auto const methodOf = [](std::size_t i) {
        return i == searchMethodsCM ? std::nullopt : std::optional(static_cast<unsigned int>(i));
    };
    for (std::size_t i = 0; i < batchesM.size(); ++i)
        if (batchesM[i] && batchesM[i]->size() > 0)
            batchesM[i]->describe(methodOf(i));
    for (std::size_t i = 0; i < askedM; ++i) {
        Question const& question = questionsM[i];
        if (!question.error.empty()) {
            writeError(out, question);
            continue;
        }
        LookUpBatch const& asked = *batchesM[question.method];
        NumberAnswer const found{asked.number(question.place), asked.instant(question.place),
                                 asked.detail(question.place)};
        ++(found.detail.found() ? countsM.found : countsM.notFound);
        if (formatM == Format::NDJSON)
            answersM.json(out, found, methodOf(question.method), question.id);
        else
            answersM.csv(out, found);
    }
    for (auto const& each : batchesM)
        if (each)
            each->clear();
    askedM = 0;
}

void LookUpStream::writeError(std::string& out, Question const& question) const {
    if (formatM == Format::CSV) {
        out.append("# line ").append(std::to_string(question.line)).append(": ");
        appendVisible(out, question.error);
        out += "\r\n";
        return;
    }
    out.append("{\"line\":").append(std::to_string(question.line)).append(",\"error\":");
    appendJsonText(out, question.error);
    if (!question.id.empty())
        out.append(",\"id\":").append(question.id);
    out += "}\n";
}

} // namespace nphost
