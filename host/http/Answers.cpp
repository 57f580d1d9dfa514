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
#include <cstring>
#include <utility>

namespace nphost {

namespace {

void appendNumber(std::string& out, std::uint64_t number) {
    out += std::to_string(number);
}

std::string_view jsonOf(std::optional<bool> known) {
    return !known ? "null" : *known ? "true" : "false";
}

} // namespace

AnswerWriter::AnswerWriter(FrontParts const& parts)
    : partsM(parts), accessCodeM(diallingCodesOf(parts.configuration).internationalAccess) {
    std::erase_if(accessCodeM, [](char c) { return !isDigit(c); });
}

void AnswerWriter::begin() {
    epochM = partsM.plugIn.serviceStatus().epoch;
    std::uint64_t const tables = partsM.networks.version(); // the same for all threads
    std::shared_ptr<NetworkTable const> table = partsM.networks.current();
    if (table != tableM) {
        tableM = std::move(table);
        forgetNetworks();
    }
    versionM = std::to_string(epochM);
    versionM.append("-").append(std::to_string(tables));
}

std::string const& AnswerWriter::data(std::uint64_t epoch) {
    if (dataM.empty() || dataOfM != epoch) {
        dataM = "\"data\":{\"epoch\":";
        appendNumber(dataM, epoch);
        dataM += '}';
        dataOfM = epoch;
    }
    return dataM;
}

std::size_t AnswerWriter::accessCodeOf(std::string_view stored) const {
    return stored.size() > accessCodeM.size() && stored.starts_with(accessCodeM) ? accessCodeM.size() : 0;
}

void AnswerWriter::number(std::string& out, std::string_view stored) const {
    std::size_t const code = accessCodeOf(stored);
    out.append(code > 0 ? "+" : "").append(stored.substr(code));
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
        forgetNetworks();
    std::string text;
    appendNetwork(text, id, tableM ? tableM->find(id) : nullptr);
    return networksM.emplace(id, std::move(text)).first->second;
}

void AnswerWriter::forgetNetworks() {
    recentM.fill({});
    networksM.clear();
}

// A text of bounded length that is put together on the stack.
class AnswerWriter::Line {
  public:
    static constexpr std::size_t mostCM = 4096;

    Line() = default;
    Line(Line const&) = delete;
    Line& operator=(Line const&) = delete;

    std::string_view view() const { return {textM, static_cast<std::size_t>(endM - textM)}; }
    Line& operator<<(std::string_view text) {
        std::memcpy(endM, text.data(), text.size());
        endM += text.size();
        return *this;
    }
    Line& operator<<(char c) {
        *endM++ = c;
        return *this;
    }
    void clear() { endM = textM; }
    char* grow(std::size_t count) { return std::exchange(endM, endM + count); }

  private:
    char textM[mostCM];
    char* endM = textM;
};

void AnswerWriter::addInstant(Line& line, BAS::DateTime at) const {
    if (!at.isValid()) {
        line << "null";
        return;
    }
    line << '"';
    partsM.clock.writeIso(line.grow(DataClock::isoLengthCM), at);
    line << '"';
}

// What many ask for is one instant: now.
void AnswerWriter::addAsked(Line& line, BAS::DateTime at) {
    if (askedTextM.empty() || askedM != at) {
        askedTextM.clear();
        instant(askedTextM, at);
        askedM = at;
    }
    line << askedTextM;
}

// What is put in whole; a longer text of networks and identifiers goes past the line.
void AnswerWriter::addLong(std::string& out, Line& line, std::string_view text) {
    constexpr std::size_t longCM = 300;
    if (text.size() <= longCM) {
        line << text;
        return;
    }
    out.append(line.view()).append(text);
    line.clear();
}

std::string const& AnswerWriter::rangeNetwork(BAS::SimpleString const& id) {
    if (rangeM.empty() || !(rangeOfM == id)) {
        rangeM.clear();
        appendJsonText(rangeM, id.view());
        rangeOfM = id;
    }
    return rangeM;
}

void AnswerWriter::addFound(std::string& out, Line& line, NumberAnswer const& answer) {
    auto const& detail = answer.detail;
    if (detail.found()) {
        line << ",\"found\":true,\"network\":";
        addLong(out, line, network(detail.record.networkIdM));
    } else {
        line << ",\"found\":false,\"network\":null";
    }
    line << ",\"validFrom\":";
    addInstant(line, detail.found() ? detail.record.validFromM : BAS::DateTime());
    line << ",\"validUntil\":";
    addInstant(line, detail.nextChange);
    line << ",\"ported\":" << jsonOf(answer.ported());
    if (detail.found())
        line << ",\"prefix\":\"" << answer.stored.view().substr(0, detail.prefixDigits) << '"';
    else
        line << ",\"prefix\":null";
}

void AnswerWriter::json(std::string& out, NumberAnswer const& answer, std::string_view id) {
    auto const& detail = answer.detail;
    std::string_view const stored = answer.stored.view();
    Line line;
    line << "{\"number\":\"";
    std::size_t const code = accessCodeOf(stored);
    if (code > 0)
        line << '+';
    line << stored.substr(code) << "\",\"stored\":\"" << stored << "\",\"at\":";
    addAsked(line, answer.at);
    addFound(out, line, answer);
    if (detail.hasRange()) {
        line << ",\"range\":{\"prefix\":\"" << stored.substr(0, detail.rangeDigits) << "\",\"network\":";
        addLong(out, line, rangeNetwork(detail.range.networkIdM));
        line << '}';
    } else {
        line << ",\"range\":null";
    }
    if (!id.empty()) {
        line << ",\"id\":";
        addLong(out, line, id);
    }
    line << ',' << data(detail.epoch) << "}\n";
    out.append(line.view());
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
    out.append(",").append(ported ? jsonOf(ported) : "").append("\r\n");
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
    out.append(",").append(data(epochM)).append("}\n");
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
    out.append(",\"ported\":").append(jsonOf(explained.ported(method))).append(",\"reason\":");
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
    out.append("},\"configured\":\"").append(nameOfSearchMethod(explained.configured())).append("\",\"range\":");
    if (Explanation::Choice const range = explained.range(); range.record != nullptr) {
        out.append("{\"prefix\":\"").append(range.prefix->key.view()).append("\",\"network\":");
        appendJsonText(out, range.record->networkIdM.view());
        out += '}';
    } else {
        out += "null";
    }
    out += ",\"nextChange\":";
    if (auto const change = explained.nextChange()) {
        out += "{\"at\":";
        instant(out, change->at);
        // A choice ends only where another begins.
        out.append(",\"prefix\":\"").append(change->choice.prefix->key.view()).append("\",\"network\":");
        out.append(network(change->choice.record->networkIdM.view())).append("}");
    } else {
        out += "null";
    }
    out.append(",").append(data(epochM)).append("}\n");
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
