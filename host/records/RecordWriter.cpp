#include "host/records/RecordWriter.h"

#include "host/base/JsonWriter.h"

#include <algorithm>

namespace nphost {

bool CsvWriter::appendField(std::string& out, std::string_view field, CsvDialect dialect) {
    // Quoted only where it must be, so that most rows are as their writer would have made them.
    bool const quoted = std::any_of(field.begin(), field.end(), [dialect](char c) {
        return c == dialect.separator || c == '\n' || c == '\r' || (c == '"' && dialect.quotes);
    });
    if (!quoted) {
        out += field;
        return true;
    }
    // Whoever reads it without quoting would find one field too many.
    if (!dialect.quotes)
        return false;
    out += '"';
    appendInQuotes(out, field);
    out += '"';
    return true;
}

void CsvWriter::appendInQuotes(std::string& out, std::string_view text) {
    for (std::size_t quote = text.find('"'); quote != std::string_view::npos; quote = text.find('"')) {
        out.append(text.substr(0, quote + 1)).append("\"");
        text.remove_prefix(quote + 1);
    }
    out += text;
}

void CsvWriter::write(std::string& out, Record const& record, std::span<std::string_view const> values) const {
    out += record.text;
    for (std::string_view const value : values) {
        out += dialectM.separator;
        out += value;
    }
    out += record.lineEnd;
}

void beginRejectRow(std::string& out, std::string_view file, std::uint64_t line, char const* reason) {
    CsvWriter::appendField(out, file, {});
    out.append(",").append(std::to_string(line)).append(",").append(reason).append(",");
}

NdjsonWriter::NdjsonWriter(std::vector<std::string> const& names) {
    // Escaped once, and not with every record.
    for (std::string const& name : names) {
        std::string& text = namesM.emplace_back();
        appendJsonText(text, name);
        text += ':';
    }
}

bool NdjsonWriter::encode(std::string& out, std::string_view value) const {
    appendJsonText(out, value);
    return true;
}

bool NdjsonWriter::encodeTruth(std::string& out, bool value) const {
    out += value ? "true" : "false";
    return true;
}

// The last brace of the text closes the object; only an empty object has an opening one before it.
void NdjsonWriter::write(std::string& out, Record const& record, std::span<std::string_view const> values) const {
    std::size_t const brace = record.text.rfind('}');
    std::string_view const members = record.text.substr(0, brace);
    std::size_t const last = members.find_last_not_of(" \t\r");
    bool separates = last != std::string_view::npos && members[last] != '{';
    out += members;
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (separates)
            out += ',';
        separates = true;
        out += namesM[i];
        out += values[i].data() != nullptr ? values[i] : "null";
    }
    out += record.text.substr(brace);
    out += record.lineEnd;
}

} // namespace nphost
