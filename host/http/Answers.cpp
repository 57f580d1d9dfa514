#include "host/http/Answers.h"

#include "host/base/Instant.h"
#include "host/base/JsonWriter.h"
#include "host/base/Text.h"
#include "host/config/DiallingCodes.h"
#include "host/fields/Numbers.h"
#include "host/log/LogReport.h"
#include "host/module/LoadedModule.h"
#include "host/records/RecordWriter.h"
#include "host/service/Front.h"

#include <algorithm>

namespace nphost {

namespace {

void appendNumber(std::string& out, std::uint64_t number) {
    out += std::to_string(number);
}

} // namespace

AnswerWriter::AnswerWriter(FrontParts const& parts)
    : partsM(parts), accessCodeM(diallingCodesOf(parts.configuration).internationalAccess) {
    std::erase_if(accessCodeM, [](char c) { return !isDigit(c); });
}

void AnswerWriter::begin() {
    statusM = partsM.plugIn.serviceStatus();
    std::shared_ptr<NetworkTable const> table = partsM.networks.current();
    if (table != tableM) {
        tableM = std::move(table);
        networksM.clear();
        ++tablesM;
    }
    versionM = std::to_string(statusM.loads);
    if (statusM.liveSince.isValid())
        versionM.append("-").append(digitsOf(statusM.liveSince));
    versionM.append("-").append(std::to_string(tablesM));
    dataM = "\"data\":{\"epoch\":";
    appendNumber(dataM, statusM.loads);
    dataM += ",\"loaded\":";
    if (statusM.liveSince.isValid())
        dataM.append("\"").append(clockTime(statusM.liveSince)).append("\"");
    else
        dataM += "null";
    dataM += '}';
}

void AnswerWriter::number(std::string& out, std::string_view stored) const {
    if (!accessCodeM.empty() && stored.size() > accessCodeM.size() && stored.starts_with(accessCodeM)) {
        out += '+';
        stored.remove_prefix(accessCodeM.size());
    }
    out.append(stored);
}

void AnswerWriter::instant(std::string& out, BAS::DateTime at) const {
    if (!at.isValid()) {
        out += "null";
        return;
    }
    out += '"';
    partsM.clock.appendIso(out, at);
    out += '"';
}

std::string const& AnswerWriter::network(std::string_view id) {
    auto const found = networksM.find(id);
    if (found != networksM.end())
        return found->second;
    if (networksM.size() >= mostKeptCM) // data with names without end must not fill the memory
        networksM.clear();
    std::string text;
    appendNetwork(text, id, tableM ? tableM->find(id) : nullptr);
    return networksM.emplace(id, std::move(text)).first->second;
}

void AnswerWriter::json(std::string& out, NumberAnswer const& answer, std::optional<unsigned int> method,
                        std::string_view id) {
    auto const& detail = answer.detail;
    std::string_view const stored = answer.stored.view();
    out += "{\"number\":\"";
    number(out, stored);
    out.append("\",\"stored\":\"").append(stored).append("\",\"at\":");
    instant(out, answer.at);
    out.append(",\"method\":\"").append(nameOfSearchMethod(method.value_or(statusM.searchMethod)));
    if (detail.found()) {
        out.append("\",\"found\":true,\"network\":").append(network(detail.record.networkIdM.view()));
        out += ",\"validFrom\":";
        instant(out, detail.record.validFromM);
    } else {
        out += "\",\"found\":false,\"network\":null,\"validFrom\":null";
    }
    out += ",\"validUntil\":";
    instant(out, detail.nextChange);
    std::optional<bool> const ported = answer.ported();
    out.append(",\"ported\":").append(!ported ? "null" : (*ported ? "true" : "false"));
    if (detail.found())
        out.append(",\"prefix\":\"").append(stored.substr(0, detail.prefixDigits)).append("\"");
    else
        out += ",\"prefix\":null";
    if (detail.hasRange()) {
        out.append(",\"range\":{\"prefix\":\"").append(stored.substr(0, detail.rangeDigits)).append("\",\"network\":");
        appendJsonText(out, detail.range.networkIdM.view());
        out += '}';
    } else {
        out += ",\"range\":null";
    }
    if (!id.empty())
        out.append(",\"id\":").append(id);
    out.append(",").append(dataM).append("}\n");
}

void AnswerWriter::text(std::string& out, NumberAnswer const& answer) {
    number(out, answer.stored.view());
    out += '\t';
    partsM.clock.appendIso(out, answer.at);
    out += '\t';
    if (answer.detail.found())
        appendVisible(out, answer.detail.record.networkIdM.view());
    else
        out += '-';
}

void AnswerWriter::csv(std::string& out, NumberAnswer const& answer) {
    auto const& detail = answer.detail;
    number(out, answer.stored.view());
    out.append(",").append(answer.stored.view()).append(",");
    partsM.clock.appendIso(out, answer.at);
    out.append(detail.found() ? ",true," : ",false,");
    if (detail.found())
        CsvWriter::appendField(out, detail.record.networkIdM.view(), {});
    out += ',';
    if (detail.found())
        partsM.clock.appendIso(out, detail.record.validFromM);
    out += ',';
    if (detail.nextChange.isValid())
        partsM.clock.appendIso(out, detail.nextChange);
    std::optional<bool> const ported = answer.ported();
    out.append(",").append(!ported ? "" : (*ported ? "true" : "false")).append("\r\n");
}

void AnswerWriter::head(std::string& out, Explained const& explained) const {
    out += "{\"number\":\"";
    number(out, explained.number().view());
    out.append("\",\"stored\":\"").append(explained.number().view()).append("\",\"at\":");
    instant(out, explained.at());
}

// Records oldest first, as a life is told; each ends where the next begins.
void AnswerWriter::prefixes(std::string& out, Explained const& explained) {
    out += ",\"prefixes\":[";
    bool isFirst = true;
    for (auto const& prefix : explained.prefixes()) {
        out.append(isFirst ? "" : ",").append("{\"prefix\":\"").append(prefix.key.view()).append("\",\"records\":[");
        isFirst = false;
        for (std::size_t i = prefix.history.size(); i-- > 0;) {
            out += "{\"validFrom\":";
            instant(out, prefix.history[i].validFromM);
            out += ",\"validUntil\":";
            instant(out, i > 0 ? prefix.history[i - 1].validFromM : BAS::DateTime());
            out.append(",\"network\":").append(network(prefix.history[i].networkIdM.view()));
            out += i > 0 ? "}," : "}";
        }
        out += "]}";
    }
    out += ']';
}

void AnswerWriter::history(std::string& out, Explained const& explained) {
    head(out, explained);
    prefixes(out, explained);
    out.append(",").append(dataM).append("}\n");
}

void AnswerWriter::choice(std::string& out, Explained const& explained, unsigned int method) {
    Explanation::Choice const chosen = explained.choice(method);
    out.append("\"").append(nameOfSearchMethod(method)).append("\":{\"found\":");
    out += chosen.record != nullptr ? "true,\"prefix\":\"" : "false,\"prefix\":";
    if (chosen.record != nullptr) {
        out.append(chosen.prefix->key.view()).append("\",\"network\":");
        out.append(network(chosen.record->networkIdM.view())).append(",\"validFrom\":");
        instant(out, chosen.record->validFromM);
    } else {
        out += "null,\"network\":null,\"validFrom\":null";
    }
    out += ",\"reason\":";
    appendJsonText(out, explained.reason(method));
    out += '}';
}

void AnswerWriter::explanation(std::string& out, Explained const& explained) {
    head(out, explained);
    prefixes(out, explained);
    out += ",\"methods\":{";
    for (unsigned int method = 0; method < searchMethodsCM; ++method) {
        out += method > 0 ? "," : "";
        choice(out, explained, method);
    }
    out.append("},\"configured\":\"").append(nameOfSearchMethod(explained.configured())).append("\",\"nextChange\":");
    if (auto const change = explained.nextChange()) {
        out += "{\"at\":";
        instant(out, change->at);
        // A choice ends only where another begins.
        out.append(",\"prefix\":\"").append(change->choice.prefix->key.view()).append("\",\"network\":");
        out.append(network(change->choice.record->networkIdM.view())).append("}");
    } else {
        out += "null";
    }
    out.append(",").append(dataM).append("}\n");
}

void AnswerWriter::networks(std::string& out) {
    out += "{\"networks\":[";
    bool isFirst = true;
    if (tableM)
        for (Network const& each : *tableM) {
            out += isFirst ? "" : ",";
            isFirst = false;
            appendNetwork(out, each.id, &each);
        }
    out += "]}\n";
}

} // namespace nphost
