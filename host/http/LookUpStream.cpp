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
    simdjson::dom::parser parser;
};

LookUpStream::LookUpStream(FrontParts const& parts, AnswerWriter& answers, Format format, Defaults const& defaults)
    : partsM(parts), answersM(answers), formatM(format), defaultsM(defaults),
      libraryM(format == Format::NDJSON ? std::make_unique<Library>() : nullptr), questionsM(batchCM) {}

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
    if (restM.size() + std::min(piece.find('\n'), piece.size()) > mostLineBytesCM && !brokenM) {
        nextQuestion(lineM + 1).error = "the line is longer than 64 KiB; nothing after it is read";
        answer(out);
        brokenM = true;
    }
    std::size_t const whole = brokenM ? 0 : piece.rfind('\n') + 1;
    if (whole > 0) {
        textM.assign(restM).append(piece.substr(0, whole));
        restM.clear();
        readLines(textM, out);
        piece.remove_prefix(whole);
    }
    if (!brokenM)
        restM.append(piece);
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
    nowM = partsM.clock.now();
    if (formatM == Format::NDJSON) {
        while (!text.empty()) {
            std::string_view line = text.substr(0, text.find('\n'));
            std::size_t const readable = text.size() + RecordReader::paddingCM;
            text.remove_prefix(std::min(line.size() + 1, text.size()));
            ++lineM;
            if (line.ends_with('\r'))
                line.remove_suffix(1);
            if (line.find_first_not_of(" \t\r") == std::string_view::npos)
                continue;
            readJson(line, readable);
            if (askedM == questionsM.size())
                answer(out);
        }
    } else {
        if (!csvM)
            csvM = std::make_unique<CsvReader>(CsvDialect());
        // A line by itself: a field that went on in the next would be another where more has come in already.
        for (Record record; !brokenM && !text.empty();) {
            std::string_view const line = text.substr(0, std::min(text.find('\n'), text.size() - 1) + 1);
            text.remove_prefix(line.size());
            csvM->begin(line, ++lineM);
            if (!csvM->next(record) || record.text.empty())
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

namespace {

// The usual line is taken apart at once: texts of ASCII without escapes, a number for an id, and nothing that is
// wrong. Of any other line nothing is said here: the library reads it.
class QuickLine {
  public:
    std::optional<std::string_view> number;
    std::optional<std::string_view> at;
    std::optional<std::string_view> method;
    std::string_view id;

    bool read(std::string_view line) {
        nextM = line.data();
        endM = line.data() + line.size();
        if (!skip('{'))
            return false;
        do {
            std::string_view name;
            if (!text(name) || !skip(':') || !member(name))
                return false;
        } while (skip(','));
        return skip('}') && atEnd() && number;
    }

  private:
    bool member(std::string_view name) {
        if (name == "number")
            return !number && text(number.emplace());
        if (name == "at")
            return !at && text(at.emplace());
        if (name == "id")
            return id.empty() && identifier();
        return name == "method" && !method && text(method.emplace());
    }

    void blanks() {
        while (nextM != endM && (*nextM == ' ' || *nextM == '\t'))
            ++nextM;
    }
    bool skip(char c) {
        blanks();
        if (nextM == endM || *nextM != c)
            return false;
        ++nextM;
        return true;
    }
    bool atEnd() {
        blanks();
        return nextM == endM;
    }
    bool text(std::string_view& out) {
        if (!skip('"'))
            return false;
        char const* const begin = nextM;
        while (nextM != endM && *nextM != '"') {
            if (*nextM == '\\' || *nextM < ' ') // not ASCII, too: char is signed
                return false;
            ++nextM;
        }
        out = std::string_view(begin, static_cast<std::size_t>(nextM - begin));
        return skip('"');
    }
    // A text, or a whole number of few digits without a sign.
    bool identifier() {
        constexpr std::size_t mostDigits = 18;
        blanks();
        char const* const begin = nextM;
        if (nextM != endM && *nextM == '"') {
            std::string_view ignored;
            if (!text(ignored))
                return false;
        } else {
            while (nextM != endM && isDigit(*nextM))
                ++nextM;
        }
        id = std::string_view(begin, static_cast<std::size_t>(nextM - begin));
        bool const isText = id.starts_with('"');
        return !id.empty() && (isText || (id.size() <= mostDigits && (id.size() == 1 || id.front() != '0')));
    }

    char const* nextM = nullptr;
    char const* endM = nullptr;
};

} // namespace

void LookUpStream::readJson(std::string_view line, std::size_t readable) {
    Question& question = nextQuestion(lineM);
    QuickLine quick;
    try {
        if (quick.read(line)) {
            question.id = quick.id;
            return ask(*quick.number, quick.at, quick.method);
        }
        readAnyJson(line, readable, question);
    } catch (QuestionError const& error) {
        question.error = error.what();
    }
}

// A member that nobody knows may be a misspelt one, and the answer another than was meant.
void LookUpStream::readAnyJson(std::string_view line, std::size_t readable, Question& question) {
    if (readable < line.size() + simdjson::SIMDJSON_PADDING)
        throw QuestionError("the line is no JSON object");
    simdjson::dom::object object;
    if (libraryM->parser.parse(line.data(), line.size(), false).get(object) != simdjson::SUCCESS)
        throw QuestionError("the line is no JSON object");
    std::array<std::optional<std::string_view>, 3> texts;
    constexpr std::array<std::string_view, 3> names = {"number", "at", "method"};
    // First: whatever is wrong beside it, the answer goes to who has asked.
    if (simdjson::dom::element id; object["id"].get(id) == simdjson::SUCCESS)
        question.id = simdjson::minify(id);
    bool hasId = false;
    for (simdjson::dom::key_value_pair const field : object) {
        if (field.key == "id") {
            if (std::exchange(hasId, true))
                throw QuestionError("'id' comes twice");
            continue;
        }
        auto const* const name = std::find(names.begin(), names.end(), field.key);
        if (name == names.end())
            throw QuestionError("there is no member '" + shortened(field.key) +
                                "'; the members are number, at, method and id");
        std::optional<std::string_view>& place = texts[static_cast<std::size_t>(name - names.begin())];
        if (place)
            throw QuestionError("'" + std::string(*name) + "' comes twice");
        if (name != names.begin() && field.value.is_null()) // as one that is not there
            continue;
        std::string_view text;
        if (field.value.get(text) != simdjson::SUCCESS)
            throw QuestionError("'" + std::string(*name) + "' must be a text");
        place = text;
    }
    if (!texts[0])
        throw QuestionError("the member 'number' is missing");
    ask(*texts[0], texts[1], texts[2]);
}

bool LookUpStream::readCsvHead(Record const& record, std::string& out) {
    for (std::string_view const name : record.values) {
        std::string_view const bare = trimmed(name);
        Column const column = bare == "number"   ? Column::NUMBER
                              : bare == "at"     ? Column::AT
                              : bare == "method" ? Column::METHOD
                                                 : Column::NONE;
        if (column == Column::NONE || std::find(columnsM.begin(), columnsM.end(), column) != columnsM.end()) {
            out.append("# line ").append(std::to_string(record.line));
            out.append(": the header must name columns number, at and method, each once\r\n");
            brokenM = true;
            return false;
        }
        columnsM.push_back(column);
    }
    if (std::find(columnsM.begin(), columnsM.end(), Column::NUMBER) == columnsM.end()) {
        out.append("# line ").append(std::to_string(record.line)).append(": the header names no column number\r\n");
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
    BAS::DateTime const when = at ? readAskedInstant(*at, partsM.clock) : defaultsM.at.value_or(nowM);
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
            answersM.json(out, found, question.id);
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
