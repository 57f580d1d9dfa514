#include "host/daemon/ServiceAnswers.h"

#include "host/base/Instant.h"
#include "host/base/ResidentMemory.h"
#include "host/base/Text.h"
#include "host/daemon/ControlProtocol.h"
#include "host/fields/Numbers.h"
#include "host/fields/QuestionLine.h"
#include "host/log/LogReport.h"
#include "host/module/Explanation.h"
#include "host/module/LookUpBatch.h"

#include <algorithm>
#include <nlohmann/json.hpp>
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
    return {{"kind", nameOf(load.kind)},
            {"succeeded", load.succeeded},
            {"file", asUtf8(load.fileName.view())},
            {"ended", clock(load.ended)},
            {"seconds", load.duration},
            {"lines", load.lines},
            {"rejectedLines", load.counts.rejected},
            {"numbersWithoutDigits", load.counts.withoutDigits}};
}

BAS::DateTime instantOf(Json const& request) {
    if (!request.contains("at"))
        return BAS::DateTime::now();
    auto const text = valueOf<std::string>(request, "at");
    BAS::DateTime const at = parseInstant(text);
    if (!at.isValid())
        throw RequestError("'" + shortened(text) + "' is not a valid instant");
    return at;
}

std::optional<unsigned int> methodOf(Json const& request) {
    if (!request.contains("method"))
        return std::nullopt;
    auto const name = valueOf<std::string>(request, "method");
    std::optional<unsigned int> const method = searchMethodOf(name);
    if (!method)
        throw RequestError("the method '" + shortened(name) + "' is not best, exact or shortest");
    return method;
}

BAS::String numberOf(NumberForm const& form, Json const& request, std::string const& written) {
    BAS::String number;
    bool const normalise = valueOf(request, "normalise", false);
    if (!normalise && holdsColumns(written))
        throw RequestError(notOneNumber(written));
    NumberKind const kind = readNumber(written, normalise ? &form : nullptr, number);
    if (kind != NumberKind::NUMBER)
        throw RequestError(notANumber(written, kind));
    return number;
}

// The bytes that an answer's texts take, so that a client is told rather than kept waiting: the event loop writes the
// answer, and holds all of it.
class AnswerSize {
  public:
    void add(std::size_t bytes) {
        bytesM += bytes;
        if (bytesM > mostAnswerBytesCM)
            throw AnswerTooLong("the answer would be longer than " + std::to_string(mostAnswerBytesCM) + " bytes");
    }

  private:
    std::size_t bytesM = 0;
};

constexpr std::size_t lookUpsAtOnceCM = 32; // few, because each may bring a network's name of any length

void answerBatch(LookUpBatch& batch, std::optional<unsigned int> method, AnswerSize& size, Json& answers) {
    batch.search(method);
    for (std::size_t i = 0; i < batch.size(); ++i) {
        LookUpBatch::Record const* const record = batch.record(i);
        std::string number = asUtf8(batch.number(i).view());
        std::string network = record == nullptr ? std::string() : asUtf8(record->networkIdM.view());
        size.add(number.size() + network.size());
        answers.push_back({{"number", std::move(number)},
                           {"found", record != nullptr},
                           {"validFrom", record != nullptr ? digits(record->validFromM) : Json()},
                           {"network", record != nullptr ? Json(std::move(network)) : Json()}});
    }
    batch.clear();
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
    constexpr std::size_t bytesARecord = 64; // besides its network
    Json all = Json::array();
    AnswerSize size;
    for (auto const& prefix : prefixes) {
        // The newest: an answer must stay of a size that the event loop can send beside others.
        std::size_t const shown = std::min(prefix.history.size(), mostHistoryCM);
        Json history = Json::array();
        for (std::size_t i = 0; i < shown; ++i) {
            std::string network = asUtf8(prefix.history[i].networkIdM.view());
            size.add(bytesARecord + network.size());
            history.push_back({{"validFrom", digits(prefix.history[i].validFromM)}, {"network", std::move(network)}});
        }
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
    set("maxNumbersWithoutDigits", limits.maxNumbersWithoutDigits);
    if (limits.minRecords > 0)
        object["minRecords"] = limits.minRecords;
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

Json answerStatus(LoadedPlugIn& plugIn, LoadGuard const& guard, DataFileState& file, Log const& log) {
    ServiceStatus const status = plugIn.serviceStatus();
    return {{"ok", true},
            {"usable", status.usable},
            {"loading", status.loading},
            {"progress", status.loading ? progressOf(plugIn) : Json()},
            {"loadedSince", clock(status.liveSince)},
            {"records", status.records},
            {"numbers", status.numbers},
            {"searchMethod", nameOfSearchMethod(status.searchMethod)},
            {"dataFile", file.toJson(status)},
            {"unsaved", status.unsaved},
            {"lastLoad", lastLoad(status.lastLoad)},
            {"guard", guardOf(plugIn, guard, status.loads)},
            {"lookUps", status.lookUps},
            {"reportsLost", log.lost()},
            {"memoryBytes", residentBytes()},
            {"process", getpid()},
            {"program", NP_VERSION}};
}

Json answerLookup(LoadedPlugIn& plugIn, NumberForm const& form, Json const& request) {
    auto const numbers = request.find("numbers");
    if (numbers == request.end() || !numbers->is_array() || numbers->empty() || numbers->size() > mostLookupNumbersCM)
        throw RequestError("'numbers' must be a list of 1 to " + std::to_string(mostLookupNumbersCM) + " numbers");
    BAS::DateTime const at = instantOf(request);
    std::optional<unsigned int> const method = methodOf(request);
    Json answers = Json::array();
    AnswerSize size;
    LookUpBatch batch(plugIn, std::min(lookUpsAtOnceCM, numbers->size()));
    for (Json const& number : *numbers) {
        if (!number.is_string())
            throw RequestError("each of 'numbers' must be a text");
        batch.nextNumber() = numberOf(form, request, number.get<std::string>());
        batch.add(at);
        if (batch.isFull())
            answerBatch(batch, method, size, answers);
    }
    answerBatch(batch, method, size, answers);
    return {{"ok", true}, {"at", digits(at)}, {"answers", std::move(answers)}};
}

Json answerExplain(LoadedPlugIn& plugIn, NumberForm const& form, Json const& request) {
    BAS::String const number = numberOf(form, request, valueOf<std::string>(request, "number"));
    if (number.length() > mostExplainBytesCM)
        throw RequestError("the number is longer than " + std::to_string(mostExplainBytesCM) + " characters");
    BAS::DateTime const at = instantOf(request);
    unsigned int const configured = plugIn.serviceStatus().searchMethod;
    Explanation::Prefixes const prefixes = plugIn.explain(number);
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
