#include "host/daemon/ControlAnswers.h"

#include "host/base/Instant.h"
#include "host/base/Text.h"
#include "host/daemon/ControlProtocol.h"
#include "host/fields/Numbers.h"
#include "host/log/LogReport.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <unistd.h>
#include <utility>

namespace nphost {

namespace {

using Json = nlohmann::json;
using DAT::NumberPortability::LoadOutcome;

// What there is not is null: clients find every key.
Json clock(BAS::DateTime at) {
    return at.isValid() ? Json(clockTime(at)) : Json();
}

Json digits(BAS::DateTime at) {
    return at.isValid() ? Json(digitsOf(at)) : Json();
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

char const* nameOf(STR::Rewriting::Way way) {
    // In the order of Rewriting::Way.
    constexpr std::array<char const*, 3> names = {"replace", "inPlace", "impossible"};
    return names.at(way);
}

Json toJson(DataFileState::Standing const& standing) {
    Json file = {{"name", asUtf8(standing.name.view())}, {"size", nullptr}, {"modified", nullptr}};
    // A file that is not there has neither size nor time.
    if (standing.version != STR::FileVersion()) {
        constexpr std::int64_t nanoseconds = 1'000'000'000;
        std::int64_t const modified = standing.version.modified;
        // Rounded down, before 1970 too.
        time_t const seconds = modified / nanoseconds - (modified % nanoseconds < 0 ? 1 : 0);
        tm parts = {};
        gmtime_r(&seconds, &parts);
        std::array<char, sizeof "2026-01-31T12:00:00Z"> text{};
        strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
        file["size"] = standing.version.size;
        file["modified"] = text.data();
    }
    BAS::String const& reason = standing.rewriting.reason;
    file["rewrite"] = nameOf(standing.rewriting.way);
    file["rewriteReason"] = reason.empty() ? Json() : Json(asUtf8(reason.view()));
    file["changed"] = standing.changed;
    file["lockedBy"] = standing.holder.empty() ? Json() : Json(asUtf8(standing.holder));
    return file;
}

// Null when no limit was asked for: that is not the same as a check that passed.
Json toJson(LoadCheck const& check) {
    if (!check.guarded)
        return nullptr;
    Json reasons = Json::array();
    for (std::string const& reason : check.reasons)
        reasons.push_back(asUtf8(reason));
    Json result = {{"passed", check.passed},
                   {"forced", check.forced},
                   {"reasons", std::move(reasons)},
                   {"seconds", check.seconds}};
    // A check that ended at the first records has no figures to tell.
    if (check.examined && !check.cursory) {
        result["lines"] = check.figures.lines;
        result["records"] = check.figures.records;
        result["rejectedLines"] = check.figures.rejected;
        result["memoryMiB"] = mebibytes(memoryAtPeak(check.kind, check.figures));
    }
    return result;
}

// Only those that are configured, by the names that they have in the file.
Json limitsOf(GuardLimits const& limits) {
    Json object = Json::object();
    auto const set = [&object](char const* key, auto const& value) {
        if (value)
            object[key] = *value;
    };
    // A whole percentage is shown as it was configured, without a decimal point.
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

Json toJson(Standing::Progress const& progress) {
    return {{"lines", progress.lines}, {"bytes", progress.bytes}, {"totalBytes", progress.totalBytes}};
}

// Without limits there is no guard to tell of.
Json guardOf(Standing const& standing) {
    if (!standing.limits.any())
        return nullptr;
    LoadGuard::Standing const& guard = standing.guard;
    Json object = {{"limits", limitsOf(standing.limits)}, {"checking", nullptr}, {"lastRefusal", nullptr}};
    if (guard.checking) {
        object["checking"] = toJson(standing.progress);
        object["checking"]["file"] = asUtf8(*guard.checking);
    }
    if (guard.lastRefusal) {
        object["lastRefusal"] = toJson(*guard.lastRefusal);
        object["lastRefusal"]["kind"] = nameOf(guard.lastRefusal->kind);
        object["lastRefusal"]["file"] = asUtf8(guard.lastRefusal->file);
        object["lastRefusal"]["ended"] = clock(guard.lastRefusal->ended);
        object["lastRefusal"]["superseded"] = !guard.isRefused(standing.data.loads);
    }
    return object;
}

// The bytes that an answer's texts take, so that a client is told rather than kept waiting: the event loop writes the
// answer, and holds all of it.
class AnswerSize {
  public:
    // Asked before a text is added, so that no more than the bound is ever held.
    void add(std::size_t bytes) {
        bytesM += bytes;
        if (bytesM > mostAnswerBytesCM)
            throw AnswerTooLong("the answer would be longer than " + std::to_string(mostAnswerBytesCM) + " bytes");
    }

  private:
    std::size_t bytesM = 0;
};

// What the table says of the networks in an answer, of each once: {"D001": {"id": "D001", "name": ...}}. Without a table
// there is nothing.
class Details {
  public:
    Details(NetworkTable const* table, AnswerSize& size) : tableM(table), sizeM(size) {}

    void add(std::string_view network) {
        if (tableM == nullptr)
            return;
        std::string id = asUtf8(network);
        if (networksM.contains(id))
            return;
        std::string text;
        appendNetwork(text, network, tableM->find(network));
        sizeM.add(text.size());
        networksM[std::move(id)] = Json::parse(text);
    }
    // Whose record may be older than those that a history shows.
    void add(Explanation::Choice const& choice) {
        if (choice.record != nullptr)
            add(choice.record->networkIdM.view());
    }
    void addTo(Json& answer) {
        if (tableM != nullptr)
            answer["networks"] = std::move(networksM);
    }

  private:
    NetworkTable const* tableM;
    AnswerSize& sizeM;
    Json networksM = Json::object();
};

Json portedOf(std::optional<bool> ported) {
    return ported ? Json(*ported) : Json();
}

// The same keys in every answer, whether something is found or not.
Json recordOf(Explanation::Choice const& choice) {
    if (choice.record == nullptr)
        return {{"found", false}, {"key", nullptr}, {"validFrom", nullptr}, {"network", nullptr}};
    return {{"found", true},
            {"key", choice.prefix->key.str()},
            {"validFrom", digits(choice.record->validFromM)},
            {"network", asUtf8(choice.record->networkIdM.view())}};
}

// A number may have a million records; who wants them all makes a listing.
constexpr std::size_t mostHistoryCM = 1000;

Json historiesOf(Explanation::Prefixes const& prefixes, AnswerSize& size, Details& details) {
    constexpr std::size_t bytesARecord = 64; // besides its network
    Json all = Json::array();
    for (auto const& prefix : prefixes) {
        // The newest: an answer must stay of a size that the event loop can send beside others.
        std::size_t const shown = std::min(prefix.history.size(), mostHistoryCM);
        Json history = Json::array();
        for (std::size_t i = 0; i < shown; ++i) {
            std::string network = asUtf8(prefix.history[i].networkIdM.view());
            size.add(bytesARecord + network.size());
            details.add(prefix.history[i].networkIdM.view());
            history.push_back({{"validFrom", digits(prefix.history[i].validFromM)}, {"network", std::move(network)}});
        }
        all.push_back({{"key", prefix.key.str()},
                       {"history", std::move(history)},
                       {"olderLeftOut", prefix.history.size() - shown}});
    }
    return all;
}

Json standingOf(Standing const& standing) {
    DAT::NumberPortability::ServiceStatus const& data = standing.data;
    return {{"ok", true},
            {"usable", data.usable},
            {"loading", data.loading},
            // Of a load; that of a check stands with the guard.
            {"progress", data.loading ? toJson(standing.progress) : Json()},
            {"loadedSince", clock(data.liveSince)},
            {"records", data.records},
            {"numbers", data.numbers},
            {"searchMethod", nameOfSearchMethod(data.searchMethod)},
            {"dataFile", toJson(standing.file)},
            {"unsaved", data.unsaved},
            {"lastLoad", lastLoad(data.lastLoad)},
            {"guard", guardOf(standing)},
            {"lookUps", data.lookUps},
            {"reportsLost", standing.reportsLost},
            {"memoryBytes", standing.memoryBytes},
            {"process", getpid()},
            {"program", NP_VERSION}};
}

} // namespace

Json toJson(Standing const& standing, std::optional<Networks::Standing> const& table) {
    Json answer = standingOf(standing);
    if (table)
        answer["networkTable"] = {{"file", asUtf8(table->file.native())},
                                  {"count", table->networks},
                                  {"refused", table->refusal.empty() ? Json() : Json(asUtf8(table->refusal))}};
    return answer;
}

Json answerLookup(Service& service, LookUpQuestion const& question, NetworkTable const* table, Metrics::Cell& cell) {
    Json answers = Json::array();
    AnswerSize size;
    Details details(table, size);
    service.describe(question, [&](NumberAnswer const& answer) {
        bool const found = answer.detail.found();
        Explanation::Record const& record = answer.detail.record;
        cell.lookedUp(found);
        // Measured as it is sent: a byte that is not UTF-8 becomes three.
        std::string shown = asUtf8(answer.stored.view());
        std::string network = found ? asUtf8(record.networkIdM.view()) : std::string();
        size.add(shown.size() + network.size());
        if (found)
            details.add(record.networkIdM.view());
        answers.push_back({{"number", std::move(shown)},
                           {"found", found},
                           {"validFrom", found ? digits(record.validFromM) : Json()},
                           {"network", found ? Json(std::move(network)) : Json()},
                           {"ported", portedOf(answer.ported())}});
    });
    Json answer = {{"ok", true}, {"at", digits(question.at)}, {"answers", std::move(answers)}};
    details.addTo(answer);
    return answer;
}

Json toJson(Explained const& explained, NetworkTable const* table) {
    AnswerSize size;
    Details details(table, size);
    Json methods;
    for (unsigned int method = 0; method < searchMethodsCM; ++method) {
        Explanation::Choice const chosen = explained.choice(method);
        details.add(chosen);
        Json choice = recordOf(chosen);
        choice["reason"] = explained.reason(method);
        choice["ported"] = portedOf(explained.ported(method));
        methods[nameOfSearchMethod(method)] = std::move(choice);
    }
    // Null when nothing is to come.
    Json next;
    if (auto const change = explained.nextChange()) {
        details.add(change->choice);
        next = recordOf(change->choice);
        next["at"] = digits(change->at);
    }
    // Null when there is none.
    Json range;
    if (Explanation::Choice const block = explained.range(); block.record != nullptr) {
        details.add(block);
        range = {{"key", block.prefix->key.str()}, {"network", asUtf8(block.record->networkIdM.view())}};
    }
    Json answer = {{"ok", true},
                   {"number", asUtf8(explained.number().view())},
                   {"at", digits(explained.at())},
                   {"prefixes", historiesOf(explained.prefixes(), size, details)},
                   {"methods", std::move(methods)},
                   {"configured", nameOfSearchMethod(explained.configured())},
                   {"range", std::move(range)},
                   {"nextChange", std::move(next)}};
    details.addTo(answer);
    return answer;
}

// With what was reported by the check of a request, and then by the request itself.
Json toJson(LoadLane::Job const& job) {
    Json reports = Json::array();
    for (ReportCollector const* const part : {&job.check.reports, &job.reports})
        for (LogReport const& report : part->reports())
            reports.push_back(toJson(report));
    Json answer = {{"ok", true},
                   {"command", nameOf(job.request.kind)},
                   {"succeeded", job.succeeded},
                   {"seconds", job.seconds},
                   {"reports", std::move(reports)},
                   {"reportsLeftOut", job.check.reports.leftOut() + job.reports.leftOut()},
                   {"check", toJson(job.check)}};
    // Keys that mean something only for these; the manual says when they are there.
    if (job.request.kind == LoadLane::UPDATE) {
        answer["result"] = job.result;
        answer["handled"] = job.handled;
    }
    if (job.isDelta) {
        answer["added"] = job.added;
        answer["known"] = job.known;
    }
    return answer;
}

// With the keys that clients look for in every answer. Its reports all count as left out.
std::string_view shortLine(LoadLane::Job const& job, ShortLine& line) {
    auto const text = [](bool value) { return value ? "true" : "false"; };
    bool const isUpdate = job.request.kind == LoadLane::UPDATE;
    // Without allocation. All its parts together stay below the line's 256 bytes.
    int const length = std::snprintf(
        line.data(), line.size(),
        "{\"check\":null,\"command\":\"%s\",%s%s%s%s\"ok\":true,\"reports\":[],\"reportsLeftOut\":%zu,\"seconds\":%.6f,"
        "\"succeeded\":%s,\"version\":%d}\n",
        nameOf(job.request.kind), isUpdate ? "\"handled\":" : "", isUpdate ? text(job.handled) : "",
        isUpdate ? ",\"result\":" : "", isUpdate ? (job.result ? "true," : "false,") : "",
        job.check.reports.reports().size() + job.check.reports.leftOut() + job.reports.reports().size() +
            job.reports.leftOut(),
        job.seconds, text(job.succeeded), protocolVersionCM);
    return {line.data(), static_cast<std::size_t>(length)};
}

} // namespace nphost
