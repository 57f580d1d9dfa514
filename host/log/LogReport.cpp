#include "host/log/LogReport.h"

#include "host/base/Instant.h"
#include "host/base/JsonWriter.h"
#include "host/base/Text.h"

#include <algorithm>
#include <array>

namespace nphost {

namespace {

constexpr std::array<std::string_view, 5> namesCM = {"NORMAL", "WARNING", "MINOR", "MAJOR", "CRITICAL"};

} // namespace

std::string_view nameOf(BAS::Status::Severity severity) {
    // Severities count from 1; 0 wraps round and is unknown, as all above are.
    auto const position = static_cast<std::size_t>(severity) - 1;
    return position < namesCM.size() ? namesCM[position] : "UNKNOWN";
}

BAS::Status::Severity severityOf(std::string_view name) {
    auto const* const found = std::find(namesCM.begin(), namesCM.end(), name);
    return static_cast<BAS::Status::Severity>(found - namesCM.begin() + 1);
}

std::string clockTime(BAS::DateTime at) {
    return at.isValid() ? at.asString("%Y-%m-%dT%H:%M:%SZ").str() : "-";
}

// The order is fixed: programs that read the log cut it at blanks and quotation marks.
void appendText(std::string& out, LogReport const& report) {
    out += clockTime(report.at);
    out += ' ';
    out += nameOf(report.severity);
    out += ' ';
    appendVisible(out, report.identifier);
    for (std::string const& argument : report.arguments) {
        out += " \"";
        appendShortened(out, argument, "\"\\");
        out += '"';
    }
    out += " : ";
    out += report.text;
}

LogReport abridged(LogReport const& report) {
    auto const cut = [](std::string const& text) {
        if (text.size() <= mostKeptBytesCM)
            return text;
        return text.substr(0, mostKeptBytesCM) + "... (" + std::to_string(text.size()) + " bytes)";
    };
    LogReport shorter;
    // Member by member: a copy of the whole would first take the memory that is to be spared.
    shorter.at = report.at;
    shorter.severity = report.severity;
    shorter.object = cut(report.object);
    shorter.identifier = cut(report.identifier);
    for (std::string const& argument : report.arguments)
        shorter.arguments.push_back(cut(argument));
    shorter.text = cut(report.text);
    return shorter;
}

void appendJson(std::string& out, LogReport const& report) {
    JsonWriter(out)
        .beginObject()
        .member("arguments", report.arguments)
        .member("identifier", report.identifier)
        .member("object", report.object)
        .member("severity", nameOf(report.severity))
        .member("text", report.text)
        .member("time", clockTime(report.at))
        .endObject();
}

} // namespace nphost
