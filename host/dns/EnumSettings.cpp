#include "host/dns/EnumSettings.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"
#include "host/config/ConfigurationValue.h"
#include "host/dns/Wire.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstring>

namespace nphost {

namespace {

constexpr std::size_t mostDigits = 15; // E.164

bool isNameCharacter(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '_';
}

AddressRange rangeOf(std::string const& text) {
    AddressRange range;
    std::size_t const slash = text.find('/');
    std::string const address = text.substr(0, slash);
    if (inet_pton(AF_INET, address.c_str(), range.network.address.data()) == 1)
        range.network.bytes = 4;
    else if (inet_pton(AF_INET6, address.c_str(), range.network.address.data()) == 1)
        range.network.bytes = 16;
    unsigned const all = range.network.bytes * 8U;
    range.bits = all;
    char const* const end = text.data() + text.size();
    bool const hasBits = slash != std::string::npos;
    auto const read = std::from_chars(hasBits ? text.data() + slash + 1 : end, end, range.bits);
    if (all == 0 || (hasBits && (read.ec != std::errc() || read.ptr != end)) || range.bits > all ||
        text.find('\0') != std::string::npos)
        throw HostError("'" + shortened(text) + "' is not an address, or one and how many bits count: 10.0.0.0/8");
    return range;
}

void readTemplate(ConfigurationValue const& value, UriTemplate& place, bool needsNothing) {
    value.check([&] {
        place = UriTemplate(value.text());
        if (needsNothing && !place.needsNothing())
            throw HostError("what every network need not have must stand in brackets");
    });
}

void readGateway(ConfigurationValue const& value, std::string& place) {
    place = value.text();
    value.check([&] {
        constexpr std::size_t most = 100;
        bool const fits = std::all_of(place.begin(), place.end(), [](char c) {
            return isNameCharacter(c) || c == '.' || c == ':' || c == '[' || c == ']';
        });
        if (place.empty() || place.size() > most || !fits)
            throw HostError("it is the host of a sip: address, with a port or without");
    });
}

void readName(ConfigurationValue const& value, std::string& place) {
    value.check([&] { place = dnsNameOf(value.text()); });
}

} // namespace

std::string dnsNameOf(std::string_view text) {
    std::string name;
    std::string_view const whole = text;
    if (text == ".")
        text = {};
    while (!text.empty()) {
        std::string_view const label = text.substr(0, text.find('.'));
        if (label.empty() || label.size() > mostDnsLabelBytesCM ||
            !std::all_of(label.begin(), label.end(), isNameCharacter))
            throw HostError("'" + shortened(whole) + "' is not a domain name");
        name += static_cast<char>(label.size());
        name += label;
        text.remove_prefix(std::min(label.size() + 1, text.size()));
    }
    name += '\0';
    if (whole.empty() || name.size() > mostDnsNameBytesCM)
        throw HostError("'" + shortened(whole) + "' is not a domain name");
    return name;
}

bool AddressRange::has(DnsClient const& client) const {
    if (client.bytes != network.bytes)
        return false;
    unsigned const whole = bits / 8;
    if (std::memcmp(client.address.data(), network.address.data(), whole) != 0)
        return false;
    unsigned const rest = bits % 8;
    return rest == 0 || ((client.address[whole] ^ network.address[whole]) >> (8 - rest)) == 0;
}

void EnumApexSettings::declare(Section& apex) {
    apex.key("name", [this](ConfigurationValue const& value) {
        readName(value, name);
        std::transform(name.begin(), name.end(), name.begin(), lowerDnsByte);
        value.check([this] {
            // All digits of a number must have room before it, and one label more.
            if (name.size() == 1 || name.size() > mostDnsNameBytesCM - 2 * (mostDigits + 1))
                throw HostError("an apex is a domain name of at most 222 characters, and not the root");
        });
    });
    apex.key("ported", [this](ConfigurationValue const& value) { readTemplate(value, ported, false); });
    apex.key("notPorted", [this](ConfigurationValue const& value) { readTemplate(value, notPorted, true); });
    apex.key("noRouting", [this](ConfigurationValue const& value) { readTemplate(value, noRouting, true); });
    apex.key("gateway", [this](ConfigurationValue const& value) { readGateway(value, gateway); });
    apex.key("nameServer", [this](ConfigurationValue const& value) { readName(value, nameServer); });
    apex.key("contact", [this](ConfigurationValue const& value) { readName(value, contact); });
}

bool EnumSettings::trusts(DnsClient const& client) const {
    return std::any_of(trusted.begin(), trusted.end(), [&](AddressRange const& range) { return range.has(client); });
}

void EnumSettings::declare(Section& section, Configuration& configuration) {
    auto& settings = configuration.place<EnumSettings>();
    section.present(settings.isOn);
    section.texts("listen", settings.listen);
    section.number("threads", 1, 64, settings.threads);
    section.number("ttl", 1, mostTtlCM, settings.ttl);
    section.number("leastDigits", 1, mostDigits, settings.leastDigits);
    section.key("trusted", [&settings](ConfigurationValue const& value) {
        for (std::string const& each : value.texts())
            value.check([&] { settings.trusted.push_back(rangeOf(each)); });
    });
    section.number("maxAnswersPerSecond", 0, 1'000'000, settings.maxAnswersPerSecond);
    section.number("maxConnections", 1, 1'000'000, settings.maxConnections);
    section.number("maxConnectionsPerAddress", 1, 1'000'000, settings.maxConnectionsPerAddress);
    section.number("idleSeconds", 1, 86'400, settings.idleSeconds);
    section.key("apex", [&settings](ConfigurationValue const& value) {
        value.eachTable([&settings](ConfigurationValue const& table) {
            EnumApexSettings apex;
            Section keys("enum.apex");
            apex.declare(keys);
            table.readInto(keys);
            table.check([&] {
                if (apex.name.empty())
                    throw HostError("each needs a 'name'");
                for (EnumApexSettings const& other : settings.apexes)
                    if (apex.name == other.name)
                        throw HostError("two have the same 'name'");
            });
            if (apex.nameServer.empty())
                apex.nameServer = apex.name;
            if (apex.contact.empty())
                apex.contact = dnsNameOf("nobody.invalid");
            settings.apexes.push_back(std::move(apex));
        });
    });
}

} // namespace nphost
