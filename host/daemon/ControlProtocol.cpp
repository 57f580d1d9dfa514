#include "host/daemon/ControlProtocol.h"

#include "host/base/Instant.h"
#include "host/base/Text.h"

#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

namespace nphost {

std::string lineOf(nlohmann::json object) {
    object["version"] = protocolVersionCM;
    // One line, since a newline ends the message: the library escapes those in texts.
    return object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

// The daemon makes it with its reserve whole: the library ends the process where memory runs out as an object goes.
nlohmann::json toJson(LogReport const& report) {
    std::vector<std::string> arguments;
    for (std::string const& argument : report.arguments)
        arguments.push_back(asUtf8(argument));
    return {{"time", clockTime(report.at)},      {"severity", nameOf(report.severity)},
            {"object", asUtf8(report.object)},   {"identifier", asUtf8(report.identifier)},
            {"arguments", std::move(arguments)}, {"text", asUtf8(report.text)}};
}

LogReport reportOf(nlohmann::json const& object) {
    LogReport report;
    report.at = parseInstant(object.at("time").get<std::string>());
    report.severity = severityOf(object.at("severity").get<std::string>());
    report.object = object.at("object").get<std::string>();
    report.identifier = object.at("identifier").get<std::string>();
    report.arguments = object.at("arguments").get<std::vector<std::string>>();
    report.text = object.at("text").get<std::string>();
    return report;
}

std::string errorLine(std::string const& reason, bool tooLong) {
    // A reason may quote the request, which may hold anything.
    nlohmann::json refusal = {{"ok", false}, {"error", visible(reason)}};
    if (tooLong)
        refusal["tooLong"] = true;
    return lineOf(std::move(refusal));
}

} // namespace nphost
