#include "host/records/CsvReader.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace nphost {

namespace {

// To libcsv a line ends at its newline, and a carriage return is what may stand between a field and that: so it goes
// from the end of a field, quoted or not, and stays everywhere else.
int isLineEnd(unsigned char byte) {
    return byte == '\n' ? 1 : 0;
}
int isSpace(unsigned char byte) {
    return byte == '\r' ? 1 : 0;
}

} // namespace

char separatorOf(std::string_view text) {
    if (text == "tab" || text == "\\t")
        return '\t';
    constexpr std::string_view impossible = "\"\r\n";
    bool const isOne = text.size() == 1 && static_cast<unsigned char>(text[0]) < 0x80;
    if (!isOne || impossible.find(text) != std::string_view::npos)
        throw HostError(
            "--separator: '" + shortened(text) +
            "' does not separate; write one byte (ASCII) that is neither quotation mark nor line end, or tab");
    return text.front();
}

CsvReader::CsvReader(CsvDialect dialect) : dialectM(dialect) {
    restart();
}

CsvReader::CsvReader(CsvDialect dialect, std::vector<std::size_t> const& wanted, std::size_t fields)
    : dialectM(dialect), fieldsM(fields), wantedM(wanted.size()), rangesM(wanted.size()) {
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        slotsM.resize(std::max(slotsM.size(), wanted[i] + 1), unwantedCM);
        slotsM[wanted[i]] = i;
    }
    restart();
}

CsvReader::~CsvReader() {
    csv_free(&parserM);
}

// The library has no other way back to the beginning of a record.
void CsvReader::restart() {
    csv_free(&parserM);
    // Strict: a quotation mark that is out of place, or never closed, is an error and not guessed at.
    csv_init(&parserM, CSV_STRICT | CSV_STRICT_FINI);
    csv_set_delim(&parserM, static_cast<unsigned char>(dialectM.separator));
    csv_set_term_func(&parserM, isLineEnd);
    csv_set_space_func(&parserM, isSpace);
}

std::size_t CsvReader::slotOf(std::size_t column) const {
    if (fieldsM == anyCM)
        return column;
    return column < slotsM.size() ? slotsM[column] : unwantedCM;
}

void CsvReader::keepField(std::string_view field) {
    // All are counted, few are kept.
    std::size_t const slot = slotOf(columnM++);
    if (slot == unwantedCM)
        return;
    if (slot >= rangesM.size())
        rangesM.resize(slot + 1);
    // Places and not views: the text may move while it grows.
    rangesM[slot] = {unquotedM.size(), field.size()};
    unquotedM += field;
}

// Parses the record at the front of the text, which holds a quotation mark in its first line. `length` is that of the
// record, or of its first line if it is broken.
CsvReader::Cut CsvReader::parse(std::string_view text, std::size_t& length) {
    auto const onField = [](void* field, std::size_t size, void* self) {
        static_cast<CsvReader*>(self)->keepField({static_cast<char const*>(field), size});
    };
    auto const onRow = [](int, void* self) { static_cast<CsvReader*>(self)->rowEndedM = true; };
    unquotedM.clear();
    columnM = 0;
    rowEndedM = false;
    // A line at a time: the library does not say where it stands when a row ends, but a row ends with a line.
    for (length = 0; !rowEndedM && length < text.size();) {
        std::string_view line = text.substr(length);
        if (std::size_t const whole = lineLength(line); whole > 0)
            line = line.substr(0, whole);
        std::size_t const taken = csv_parse(&parserM, line.data(), line.size(), onField, onRow, this);
        if (taken != line.size() && csv_error(&parserM) == CSV_ENOMEM)
            throw std::bad_alloc();
        length += line.size();
        if (taken != line.size())
            break;
    }
    if (rowEndedM)
        return Cut::WHOLE;
    bool const atEnd = csv_error(&parserM) == CSV_SUCCESS && length == text.size();
    bool const whole = atEnd && csv_fini(&parserM, onField, onRow, this) == 0; // the last line may lack its newline
    bool const newlineLacks = !text.ends_with('\n');
    restart();
    if (whole && newlineLacks)
        return Cut::WHOLE;
    // Only the first line is given up: a mark that is never closed would else swallow the file.
    std::size_t const first = lineLength(text);
    length = first > 0 ? first : text.size();
    return atEnd ? Cut::UNFINISHED : Cut::BROKEN;
}

// Where records end depends on the marks before: so a text with any is walked through, one without is asked from its
// end.
std::size_t CsvReader::wholeRecords(std::string_view text) {
    if (isPlain(text))
        return text.rfind('\n') + 1;
    std::size_t at = 0;
    for (;;) {
        std::string_view const rest = text.substr(at);
        std::size_t length = lineLength(rest);
        if (length == 0)
            return at;
        if (!isPlain(rest.substr(0, length))) {
            Cut const cut = parse(rest, length);
            // What ends with the text may go on in what follows.
            if (cut == Cut::UNFINISHED || (cut == Cut::WHOLE && rest[length - 1] != '\n'))
                return at;
        }
        at += length;
    }
}

void CsvReader::begin(std::string_view text, std::uint64_t firstLine) {
    restM = text;
    lineM = firstLine;
}

bool CsvReader::next(Record& record) {
    if (restM.empty())
        return false;
    std::size_t const length = lineLength(restM);
    std::string_view const line = length > 0 ? restM.substr(0, length) : restM;
    record.line = lineM;
    record.problem = Problem::NONE;
    record.values.clear();
    if (isPlain(line)) {
        setText(record, line);
        if (!record.text.empty())
            split(record);
        restM.remove_prefix(line.size());
        ++lineM;
    } else {
        takeQuoted(restM, record);
    }
    return true;
}

// Beyond the last column that is wanted fields are only counted.
void CsvReader::split(Record& record) const {
    record.values.resize(wantedM);
    std::string_view rest = record.text;
    std::size_t const looked = fieldsM == anyCM ? anyCM : slotsM.size();
    std::size_t count = 0;
    while (count < looked) {
        std::size_t const end = rest.find(dialectM.separator);
        keepPlain(count++, rest.substr(0, end), record);
        if (end == std::string_view::npos)
            return finishFields(count, record);
        rest.remove_prefix(end + 1);
    }
    count += 1 + static_cast<std::size_t>(std::count(rest.begin(), rest.end(), dialectM.separator));
    finishFields(count, record);
}

void CsvReader::keepPlain(std::size_t column, std::string_view field, Record& record) const {
    if (fieldsM == anyCM)
        record.values.push_back(field);
    else if (slotsM[column] != unwantedCM)
        record.values[slotsM[column]] = field;
}

// A record with another number of fields may be shifted: none of its values can be trusted.
void CsvReader::finishFields(std::size_t count, Record& record) const {
    if (fieldsM == anyCM || count == fieldsM)
        return;
    record.problem = Problem::FIELD_COUNT;
    record.values.clear();
}

// The library removes the quotation marks, so these values lie in the reader; the record's text stays where it is.
void CsvReader::takeQuoted(std::string_view text, Record& record) {
    std::size_t length = 0;
    if (parse(text, length) != Cut::WHOLE)
        record.problem = Problem::BROKEN_QUOTES;
    else if (fieldsM == anyCM || fieldsM == columnM)
        setValues(record);
    else
        record.problem = Problem::FIELD_COUNT;
    std::string_view const whole = text.substr(0, length);
    setText(record, whole);
    restM.remove_prefix(length);
    // A record of several lines counts them all; the last line may lack its newline.
    lineM += std::max<std::uint64_t>(1, static_cast<std::uint64_t>(std::count(whole.begin(), whole.end(), '\n')));
}

void CsvReader::setValues(Record& record) const {
    std::size_t const count = fieldsM == anyCM ? columnM : wantedM;
    for (std::size_t i = 0; i < count; ++i)
        record.values.push_back(std::string_view(unquotedM).substr(rangesM[i].begin, rangesM[i].length));
}

} // namespace nphost
