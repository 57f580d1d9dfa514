#include "host/ServiceAnswers.h"

#include "host/ControlProtocol.h"
#include "host/Explanation.h"
#include "host/Instant.h"
#include "host/LogReport.h"
#include "host/Numbers.h"
#include "host/ReportHub.h"
#include "host/ResidentMemory.h"
#include "host/Text.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

namespace nphost {

namespace {

using Json = nlohmann::json;
using DAT::NumberPortability::LoadOutcome;
using DAT::NumberPortability::ServiceStatus;

Json clock(BAS::DateTime at) {
    return at.isValid() ? Json(clockTime(at)) : Json();
}

Json digits(BAS::DateTime at) {
    return at.isValid() ? Json(at.asString("%Y%m%d%H%M%S").str()) : Json();
}

Json dataFile(std::string const& name) {
    Json file = {{"name", asUtf8(name)}, {"size", nullptr}, {"modified", nullptr}};
    struct stat status = {};
    if (stat(name.c_str(), &status) != 0)
        return file;
    tm parts = {};
    gmtime_r(&status.st_mtim.tv_sec, &parts);
    char text[sizeof "2026-01-31T12:00:00Z"] = {};
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    file["size"] = status.st_size;
    file["modified"] = text;
    return file;
}

char const* nameOf(LoadOutcome::Kind kind) {
    switch (kind) {
    case LoadOutcome::LOAD:
        return "load";
    case LoadOutcome::RELOAD:
        return "reload";
    case LoadOutcome::DELTA_LOAD:
        return "delta";
    case LoadOutcome::NONE:
        break;
    }
    return "none";
}

Json lastLoad(LoadOutcome const& load) {
    return {{"kind", nameOf(load.kind)},     {"succeeded", load.succeeded}, {"file", asUtf8(load.fileName.view())},
            {"ended", clock(load.ended)},    {"seconds", load.duration},    {"lines", load.lines},
            {"rejectedLines", load.rejected}};
}

BAS::DateTime instantOf(Json const& request) {
    if (!request.contains("at"))
        return BAS::DateTime::now();
    auto const text = request.at("at").get<std::string>();
    BAS::DateTime const at = parseInstant(text);
    if (!at.isValid())
        throw RequestError("'" + shortened(text) + "' is not a valid instant");
    return at;
}

std::optional<unsigned int> methodOf(Json const& request) {
    if (!request.contains("method"))
        return std::nullopt;
    auto const name = request.at("method").get<std::string>();
    std::optional<unsigned int> const method = searchMethodOf(name);
    if (!method)
        throw RequestError("the method '" + shortened(name) + "' is not best, exact or shortest");
    return method;
}

BAS::String numberOf(LoadedPlugIn const& plugIn, Json const& request, std::string const& written) {
    if (!hasDigit(written))
        throw RequestError("'" + shortened(written) + "' is not a number");
    BAS::String number;
    readNumber(written, request.value("normalise", false), plugIn, number);
    return number;
}

// A question that memory did not suffice for is not "not found". The plug-in says so in a report.
template <class Question>
auto asked(Question&& question) {
    ReportCollector reports;
    ReportHub::CollectingScope const scope(reports);
    auto answer = question();
    if (reports.hasFailure())
        throw RequestError("the plug-in could not answer; its log says why");
    return answer;
}

Json answerOf(LoadedPlugIn& plugIn, BAS::String const& number, BAS::DateTime at, std::optional<unsigned int> method) {
    DAT::NumberPortability::NumberPortabilityData record;
    bool const found =
        asked([&] { return method ? plugIn.search(number, at, record, *method) : plugIn.search(number, at, record); });
    return {{"number", asUtf8(number.view())},
            {"found", found},
            {"validFrom", found ? digits(record.validFromM) : Json()},
            {"network", found ? Json(asUtf8(record.networkIdM.view())) : Json()}};
}

Json recordOf(Explanation::Choice const& choice) {
    if (choice.record == nullptr)
        return {{"found", false}, {"key", nullptr}, {"validFrom", nullptr}, {"network", nullptr}};
    return {{"found", true},
            {"key", choice.prefix->key.str()},
            {"validFrom", digits(choice.record->validFromM)},
            {"network", asUtf8(choice.record->networkIdM.view())}};
}

constexpr std::size_t mostHistoryCM = 1000;

Json historiesOf(Explanation::Prefixes const& prefixes) {
    Json all = Json::array();
    for (auto const& prefix : prefixes) {
        // The newest: an answer must stay of a size that the event loop can send beside others.
        std::size_t const shown = std::min(prefix.history.size(), mostHistoryCM);
        Json history = Json::array();
        for (std::size_t i = 0; i < shown; ++i)
            history.push_back({{"validFrom", digits(prefix.history[i].validFromM)},
                               {"network", asUtf8(prefix.history[i].networkIdM.view())}});
        all.push_back({{"key", prefix.key.str()},
                       {"history", std::move(history)},
                       {"olderLeftOut", prefix.history.size() - shown}});
    }
    return all;
}

Json limitsOf(GuardLimits const& limits) {
    Json object = Json::object();
    auto const set = [&object](char const* key, auto const& value) {
        if (value)
            object[key] = *value;
    };
    auto const setPercent = [&object](char const* key, std::optional<std::uint32_t> thousandths) {
        if (thousandths)
            object[key] = *thousandths % 1000 == 0 ? Json(*thousandths / 1000) : Json(*thousandths / 1000.0);
    };
    setPercent("maxLossPercent", limits.maxLossPercent);
    setPercent("maxRejectedPercent", limits.maxRejectedPercent);
    set("minRecords", limits.minRecords);
    if (limits.requireCompleteLastLine)
        object["requireCompleteLastLine"] = true;
    set("maxMemoryMiB", limits.maxMemoryMiB);
    return object;
}

Json progressOf(LoadedPlugIn const& plugIn) {
    DAT::NumberPortability::LoadProgress const* const progress = plugIn.progress();
    return {{"lines", progress->lines()}, {"bytes", progress->bytes()}, {"totalBytes", progress->totalBytes()}};
}

Json guardOf(LoadedPlugIn const& plugIn, LoadGuard const& guard, std::uint64_t loads) {
    if (!guard.isOn())
        return nullptr;
    LoadGuard::Standing const standing = guard.standing();
    Json object = {{"limits", limitsOf(guard.limits())}, {"checking", nullptr}, {"lastRefusal", nullptr}};
    if (standing.checking) {
        object["checking"] = progressOf(plugIn);
        object["checking"]["file"] = asUtf8(*standing.checking);
    }
    if (standing.lastRefusal) {
        object["lastRefusal"] = toJson(*standing.lastRefusal);
        object["lastRefusal"]["kind"] = nameOf(standing.lastRefusal->kind);
        object["lastRefusal"]["file"] = asUtf8(standing.lastRefusal->file);
        object["lastRefusal"]["ended"] = clock(standing.lastRefusal->ended);
        object["lastRefusal"]["superseded"] = !standing.isRefused(loads);
    }
    return object;
}

} // namespace

Json answerStatus(LoadedPlugIn& plugIn, LoadGuard const& guard) {
    ServiceStatus const status = plugIn.serviceStatus();
    return {{"ok", true},
            {"usable", status.usable},
            {"loading", status.loading},
            {"progress", status.loading ? progressOf(plugIn) : Json()},
            {"loadedSince", clock(status.liveSince)},
            {"records", status.records},
            {"numbers", status.numbers},
            {"searchMethod", nameOfSearchMethod(status.searchMethod)},
            {"dataFile", dataFile(status.dataFileName.str())},
            {"lastLoad", lastLoad(status.lastLoad)},
            {"guard", guardOf(plugIn, guard, status.loads)},
            {"lookUps", status.lookUps},
            {"memoryBytes", residentBytes()},
            {"process", getpid()},
            {"program", NP_VERSION}};
}

Json answerLookup(LoadedPlugIn& plugIn, Json const& request) {
    Json const& numbers = request.at("numbers");
    if (!numbers.is_array() || numbers.empty() || numbers.size() > mostLookupNumbersCM)
        throw RequestError("'numbers' must be a list of 1 to " + std::to_string(mostLookupNumbersCM) + " numbers");
    BAS::DateTime const at = instantOf(request);
    std::optional<unsigned int> const method = methodOf(request);
    Json answers = Json::array();
    for (Json const& number : numbers)
        answers.push_back(answerOf(plugIn, numberOf(plugIn, request, number.get<std::string>()), at, method));
    return {{"ok", true}, {"at", digits(at)}, {"answers", std::move(answers)}};
}

Json answerExplain(LoadedPlugIn& plugIn, Json const& request) {
    BAS::String const number = numberOf(plugIn, request, request.at("number").get<std::string>());
    if (number.length() > mostExplainBytesCM)
        throw RequestError("the number is longer than " + std::to_string(mostExplainBytesCM) + " characters");
    BAS::DateTime const at = instantOf(request);
    unsigned int const configured = plugIn.serviceStatus().searchMethod;
    Explanation::Prefixes const prefixes = asked([&] { return plugIn.explain(number); });
    Explanation const explanation(prefixes, number);

    Json methods;
    for (unsigned int method = 0; method < searchMethodsCM; ++method) {
        Json choice = recordOf(explanation.choose(method, at));
        choice["reason"] = explanation.reason(method, at);
        methods[nameOfSearchMethod(method)] = std::move(choice);
    }
    Json next;
    if (auto const change = explanation.nextChange(configured, at)) {
        next = recordOf(change->choice);
        next["at"] = digits(change->at);
    }
    return {{"ok", true},
            {"number", asUtf8(number.view())},
            {"at", digits(at)},
            {"prefixes", historiesOf(prefixes)},
            {"methods", std::move(methods)},
            {"configured", nameOfSearchMethod(configured)},
            {"nextChange", std::move(next)}};
}

} // namespace nphost
