// Fuzz target: records of comma-separated values.
//
// Input: a line whose first byte is the separator and whose second, if it is '-', switches quoting off; the rest is the
// text that is read. A naive reading must find the same records, problems and fields; all bytes must come back; and
// where whole records end a record must end. Carriage returns around a field are not compared: libcsv drops them.
#include "fuzz/Fuzz.h"
#include "host/records/CsvReader.h"

#include <algorithm>

namespace {

using npfuzz::checkEqual;
using nphost::CsvDialect;
using nphost::CsvReader;
using nphost::Problem;
using nphost::Record;

struct Naive {
    std::size_t length = 0;
    bool broken = false;
    std::vector<std::string> fields;
};

// The record at the front of the text, character by character.
class NaiveReading {
  public:
    NaiveReading(std::string_view text, CsvDialect dialect) : textM(text), dialectM(dialect) {}

    Naive read() {
        bool more = true;
        while (more && !resultM.broken) {
            std::size_t const begin = skipReturns(atM);
            bool const quoted = dialectM.quotes && begin < textM.size() && textM[begin] == '"';
            more = quoted ? readQuoted(begin + 1) : readPlain();
        }
        resultM.length = resultM.broken ? std::min(textM.find('\n'), textM.size() - 1) + 1 : atM;
        return resultM;
    }

  private:
    std::size_t skipReturns(std::size_t at) const {
        while (at < textM.size() && textM[at] == '\r')
            ++at;
        return at;
    }

    bool readPlain() {
        std::string field;
        while (atM < textM.size() && textM[atM] != dialectM.separator && textM[atM] != '\n')
            field += textM[atM++];
        resultM.broken = dialectM.quotes && field.find('"') != std::string::npos;
        resultM.fields.push_back(field);
        return endField();
    }

    bool readQuoted(std::size_t at) {
        std::string field;
        for (; at < textM.size(); ++at) {
            if (textM[at] == '"' && (at + 1 == textM.size() || textM[at + 1] != '"'))
                break;
            at += textM[at] == '"' ? 1 : 0;
            field += textM[at];
        }
        if (at == textM.size()) {
            resultM.broken = true;
            return false;
        }
        atM = skipReturns(at + 1);
        resultM.fields.push_back(field);
        resultM.broken = atM < textM.size() && textM[atM] != dialectM.separator && textM[atM] != '\n';
        return endField();
    }

    // Whether another field follows.
    bool endField() {
        bool const more = atM < textM.size() && textM[atM] == dialectM.separator;
        atM += atM < textM.size() ? 1 : 0;
        return more;
    }

    std::string_view textM;
    CsvDialect dialectM;
    std::size_t atM = 0;
    Naive resultM;
};

std::string_view withoutReturns(std::string_view field) {
    while (field.starts_with('\r'))
        field.remove_prefix(1);
    while (field.ends_with('\r'))
        field.remove_suffix(1);
    return field;
}

void compare(Record const& all, Record const& chosen, Naive const& expected) {
    std::string_view const text = all.text;
    checkEqual("a record's length", text, text.size() + all.lineEnd.size(), expected.length);
    checkEqual("being broken", text, all.problem == Problem::BROKEN_QUOTES, expected.broken);
    if (expected.broken || text.empty())
        return checkEqual("fields without a record", text, all.values.size() + chosen.values.size(), 0);
    checkEqual("the number of fields", text, all.values.size(), expected.fields.size());
    for (std::size_t i = 0; i < all.values.size(); ++i)
        checkEqual("a field", text, withoutReturns(all.values[i]), withoutReturns(expected.fields[i]));
    checkEqual("being ragged", text, chosen.problem == Problem::FIELD_COUNT, expected.fields.size() != 3);
    if (expected.fields.size() != 3)
        return;
    checkEqual("the column chosen first", text, chosen.values[0], all.values[1]);
    checkEqual("the column chosen second", text, chosen.values[1], all.values[0]);
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view text = npfuzz::textOf(data, size);
    std::string_view const options = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(options.size() + 1, text.size()));
    CsvDialect dialect;
    if (!options.empty() && std::string_view("\"\r").find(options[0]) == std::string_view::npos)
        dialect.separator = options[0];
    dialect.quotes = options.size() < 2 || options[1] != '-';

    CsvReader all(dialect);
    CsvReader chosen(dialect, {1, 0}, 3);
    std::size_t const whole = all.wholeRecords(text);
    bool endsThere = whole == 0;
    all.begin(text, 1);
    chosen.begin(text, 1);
    std::size_t at = 0;
    Record record;
    Record other;
    while (all.next(record) && chosen.next(other)) {
        std::string_view const rest = text.substr(at);
        checkEqual("the line", rest, record.line,
                   1 + static_cast<std::uint64_t>(
                           std::count(text.begin(), text.end() - static_cast<long>(rest.size()), '\n')));
        compare(record, other, NaiveReading(rest, dialect).read());
        at += record.text.size() + record.lineEnd.size();
        endsThere = endsThere || at == whole;
    }
    checkEqual("the bytes of all records", text, at, text.size());
    checkEqual("the end of whole records", text, endsThere, true);
    return 0;
}
