#include "host/log/LogReport.h"

#include "host/base/Instant.h"
#include "host/base/Text.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <utility>

namespace nphost {

namespace {

constexpr std::array<std::string_view, 5> namesCM = {"NORMAL", "WARNING", "MINOR", "MAJOR", "CRITICAL"};

} // namespace

std::string_view nameOf(BAS::Status::Severity severity) {
    // Severities count from 1; 0 wraps round and is unknown, as all above are.
    auto const position = static_cast<std::size_t>(severity) - 1;
    return position < namesCM.size() ? namesCM[position] : "UNKNOWN";
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

// Written by hand from single texts: the library ends the process where memory runs out as an object of its own goes.
void appendJson(std::string& out, LogReport const& report) {
    auto const quoted = [](std::string_view text) { return nlohmann::json(asUtf8(text)).dump(); };
    out += R"({"arguments":[)";
    for (std::string const& argument : report.arguments) {
        out += &argument == report.arguments.data() ? "" : ",";
        out += quoted(argument);
    }
    for (auto const& [key, text] : {std::pair<char const*, std::string>{R"(],"identifier":)", report.identifier},
                                    {R"(,"object":)", report.object},
                                    {R"(,"severity":)", std::string(nameOf(report.severity))},
                                    {R"(,"text":)", report.text},
                                    {R"(,"time":)", clockTime(report.at)}}) {
        out += key;
        out += quoted(text);
    }
    out += '}';
}

// The same keys as above, as a value: for answers, which the daemon makes with its reserve whole.
nlohmann::json toJson(LogReport const& report) {
    std::vector<std::string> arguments;
    for (std::string const& argument : report.arguments)
        arguments.push_back(asUtf8(argument));
    return {{"time", clockTime(report.at)},      {"severity", nameOf(report.severity)},
            {"object", asUtf8(report.object)},   {"identifier", asUtf8(report.identifier)},
            {"arguments", std::move(arguments)}, {"text", asUtf8(report.text)}};
}

LogReport reportOf(nlohmann::json const& object) {
    auto const severity = std::find(namesCM.begin(), namesCM.end(), object.at("severity").get<std::string>());
    LogReport report;
    report.at = parseInstant(object.at("time").get<std::string>());
    // A name that is unknown becomes a number that nameOf calls UNKNOWN.
    report.severity = static_cast<BAS::Status::Severity>(severity - namesCM.begin() + 1);
    report.object = object.at("object").get<std::string>();
    report.identifier = object.at("identifier").get<std::string>();
    report.arguments = object.at("arguments").get<std::vector<std::string>>();
    report.text = object.at("text").get<std::string>();
    return report;
}

} // namespace nphost
