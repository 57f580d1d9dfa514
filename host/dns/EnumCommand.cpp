#include "host/dns/EnumCommand.h"

#include "host/base/ExitStatus.h"
#include "host/base/HostError.h"
#include "host/base/Output.h"
#include "host/base/Text.h"
#include "host/dns/EnumAnswers.h"
#include "host/dns/ZoneText.h"
#include "host/fields/DataClock.h"
#include "host/fields/FieldOptions.h"
#include "host/fields/Numbers.h"
#include "host/module/Host.h"
#include "host/service/Networks.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace nphost {

namespace {

constexpr char const* enumHelpCM =
    R"(Answers as the daemon would over DNS (ENUM), in the form of zone files: for each question a
comment with its status, then the records of the answer, or the SOA that says for how long
there is none. A question is a number, as people write it, or a name below an apex:

  nphost enum --config enum.toml --at 20240615120000 +447700900123
  nphost enum --config enum.toml --type SOA e164.example.

)";

struct EnumOptions {
    CommonOptions common;
    std::vector<std::string> questions;
    std::optional<std::string> at; // none: now
    std::string type = "NAPTR";
    std::optional<std::string> apex; // none: the first that is configured
};

bool isName(std::string_view question) {
    return std::any_of(question.begin(), question.end(),
                       [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }) &&
           question.find(':') == std::string_view::npos; // which addresses have
}

// The apex that numbers are asked below. Without a configured one, the option makes one.
std::string chooseApex(EnumSettings& settings, EnumOptions const& options) {
    if (!options.apex) {
        if (settings.apexes.empty())
            throw HostError("the configuration has no [[enum.apex]]; --apex names one");
        return settings.apexes.front().name;
    }
    std::string name = dnsNameOf(*options.apex);
    std::transform(name.begin(), name.end(), name.begin(), lowerDnsByte);
    auto const same = [&](EnumApexSettings const& each) { return each.name == name; };
    if (!settings.apexes.empty() && std::none_of(settings.apexes.begin(), settings.apexes.end(), same))
        throw HostError("the configuration has no [[enum.apex]] of the name '" + shortened(*options.apex) + "'");
    if (settings.apexes.empty()) {
        EnumApexSettings apex;
        apex.name = apex.nameServer = name;
        apex.contact = dnsNameOf("nobody.invalid");
        settings.apexes.push_back(std::move(apex));
    }
    return name;
}

// Of a number in stored form; one that is not international has none.
std::string nameOfNumber(std::string const& question, Host const& host, std::string_view accessCode,
                         std::string const& apex) {
    BAS::String stored;
    if (NumberKind const kind = readNumber(question, &host.numbers(), stored); kind != NumberKind::NUMBER)
        throw HostError(notANumber(question, kind));
    std::string_view digits = stored.view();
    if (!digits.starts_with(accessCode) || !std::all_of(digits.begin(), digits.end(), isDigit))
        throw HostError("'" + shortened(question) + "' is no international number");
    digits.remove_prefix(accessCode.size());
    std::string name;
    for (auto digit = digits.rbegin(); digit != digits.rend(); ++digit) {
        name += '\1';
        name += *digit;
    }
    name += apex;
    if (name.size() > mostDnsNameBytesCM)
        throw HostError("'" + shortened(question) + "' has too many digits for a name");
    return name;
}

void append16(std::string& out, unsigned value) {
    out += static_cast<char>(value >> 8);
    out += static_cast<char>(value);
}

std::string packetOf(std::string const& name, std::uint16_t type) {
    std::string packet;
    for (unsigned const field : {0U, 0U, 1U, 0U, 0U, 0U}) // an identifier, no flags, one question
        append16(packet, field);
    packet += name;
    append16(packet, type);
    append16(packet, dnsInternetCM);
    return packet;
}

int answerQuestions(EnumOptions const& options) {
    Configuration configuration = options.common.readConfiguration();
    DataClock const clock(configuration);
    BAS::DateTime const now = BAS::DateTime::now();
    BAS::DateTime const utc = options.at ? clock.toUtc(instantOf(options.at, clock, {})) : now;
    std::optional<std::uint16_t> const type = dnsTypeOf(options.type);
    if (!type || *type == 0 || *type == DNS_OPT)
        throw HostError("'" + shortened(options.type) + "' is not a type that can be asked for");
    EnumSettings settings = configuration.of<EnumSettings>();
    std::string const apex = chooseApex(settings, options);
    EnumZones const zones(std::move(settings), configuration);
    Networks const networks(configuration.of<NetworkTable::Settings>().file);
    DnsCookies const cookies = DnsCookies::random();
    Host host(std::move(configuration), options.common);
    std::vector<std::string> packets;
    for (std::string const& question : options.questions)
        packets.push_back(packetOf(
            isName(question) ? dnsNameOf(question) : nameOfNumber(question, host, zones.accessCode(), apex), *type));
    host.start();
    EnumAnswers answers({host.plugIn(), networks, clock, zones, cookies}, 1);
    Output out(STDOUT_FILENO);
    std::vector<char> place(EnumAnswers::mostAnswerBytesCM);
    bool allAnswered = true;
    for (std::string const& packet : packets) {
        EnumQuery query;
        query.packet = packet;
        query.place = place.data();
        query.isTcp = true;
        answers.answer({&query, 1}, utc);
        out.append(zoneText({place.data(), query.length}).value_or("; no answer\n"));
        allAnswered = allAnswered && query.outcome == DnsOutcome::ANSWERED;
    }
    out.flush();
    host.throwFailure(); // a look-up that ran out of memory is not "no records"
    return allAnswered ? FINE : NOT_FOUND;
}

void declareEnum(Arguments& arguments, CommonOptions& common) {
    auto const options = std::make_shared<EnumOptions>();
    addConfiguration(arguments, common).required();
    arguments.add("QUESTION", "...", options->questions, "Numbers, or names below an apex").required();
    arguments.refuseLists("is neither a number nor a name");
    addInstant(arguments, "--at", options->at);
    arguments.add("--type", "TYPE", options->type, "What is asked for: NAPTR (default), ANY, SOA, NS, or another")
        .named();
    arguments.add("--apex", "NAME", options->apex, "Below which name numbers are asked for; default: the first one")
        .named();
    arguments.footer(std::string(enumHelpCM) + exitStatusHelpCM);
    arguments.runs([options, &common] {
        options->common = common;
        return answerQuestions(*options);
    });
}

} // namespace

Command const enumCommandCM = {"enum", "Answer for numbers as over DNS (ENUM)", declareEnum};

} // namespace nphost
