#include "host/RecordWriter.h"

#include "host/Text.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace nphost {

namespace {

bool isPlainJson(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return c >= ' ' && c < '\x7f' && c != '"' && c != '\\'; });
}

bool isPlainCsv(char c, CsvDialect dialect) {
    return c != dialect.separator && c != '\n' && c != '\r' && (c != '"' || !dialect.quotes);
}

// As a JSON text, with U+FFFD for what is no UTF-8.
void appendJson(std::string& out, std::string_view text) {
    if (!isPlainJson(text)) {
        out += nlohmann::json(asUtf8(text)).dump();
        return;
    }
    out += '"';
    out += text;
    out += '"';
}

} // namespace

CsvWriter::CsvWriter(CsvDialect dialect) : dialectM(dialect) {
    for (std::size_t byte = 0; byte < plainM.size(); ++byte)
        plainM[byte] = isPlainCsv(static_cast<char>(byte), dialect);
}

bool CsvWriter::appendField(std::string& out, std::string_view field, CsvDialect dialect) {
    if (std::all_of(field.begin(), field.end(), [dialect](char c) { return isPlainCsv(c, dialect); })) {
        out += field;
        return true;
    }
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

bool CsvWriter::write(std::string& out, Record const& record, std::span<Value const> values) {
    std::size_t const before = out.size();
    out += record.text;
    for (Value const value : values) {
        out += dialectM.separator;
        bool plain = true;
        for (char const c : value)
            plain &= plainM[static_cast<unsigned char>(c)];
        if (plain) {
            out += value;
        } else if (!appendField(out, value, dialectM)) {
            out.resize(before);
            return false;
        }
    }
    out += record.lineEnd;
    return true;
}

void beginRejectRow(std::string& out, std::string_view file, std::uint64_t line, char const* reason) {
    CsvWriter::appendField(out, file, {});
    out.append(",").append(std::to_string(line)).append(",").append(reason).append(",");
}

JsonWriter::JsonWriter(std::vector<std::string> const& names) {
    for (std::string const& name : names) {
        std::string& text = namesM.emplace_back();
        appendJson(text, name);
        text += ':';
    }
}

// The last brace of the text closes the object; only an empty object has an opening one before it.
bool JsonWriter::write(std::string& out, Record const& record, std::span<Value const> values) {
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
        if (values[i].data() != nullptr)
            appendJson(out, values[i]);
        else
            out += "null";
    }
    out += record.text.substr(brace);
    out += record.lineEnd;
    return true;
}

} // namespace nphost
