#include "host/fields/NetworkTable.h"

#include "host/base/JsonWriter.h"
#include "host/base/Text.h"
#include "host/config/TomlFile.h"

#include <algorithm>
#include <array>

namespace nphost {

namespace {

bool isNumeric(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), isDigit);
}

bool isHex(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool isMcc(std::string_view text) {
    return text.size() == 3 && isNumeric(text);
}

bool isMnc(std::string_view text) {
    return (text.size() == 2 || text.size() == 3) && isNumeric(text);
}

bool isGlobal(std::string_view text) {
    constexpr std::size_t most = 15; // E.164
    return text.starts_with('+') && text.size() <= most + 1 && isNumeric(text.substr(1)) && text[1] != '0';
}

// Visual separators, which the RFC would allow, help nobody here.
bool isRoutingNumber(std::string_view text) {
    constexpr std::size_t most = 32;
    return isGlobal(text) || (!text.empty() && text.size() <= most && std::all_of(text.begin(), text.end(), isHex));
}

bool isDomain(std::string_view text) {
    constexpr std::size_t most = 253;
    constexpr std::size_t mostOfLabel = 63;
    if (text.empty() || text.size() > most)
        return false;
    while (!text.empty()) {
        std::string_view const label = text.substr(0, text.find('.'));
        auto const fits = [](char c) {
            return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-';
        };
        if (label.empty() || label.size() > mostOfLabel || label.front() == '-' || label.back() == '-' ||
            !std::all_of(label.begin(), label.end(), fits))
            return false;
        text.remove_prefix(std::min(label.size() + 1, text.size()));
    }
    return true;
}

bool isContext(std::string_view text) {
    return isGlobal(text) || isDomain(text);
}

// Each behind a ';', in characters that need no escape anywhere in a tel: or sip: URI.
bool isParameters(std::string_view text) {
    constexpr std::size_t most = 128;
    constexpr std::string_view marks = "-_.~*'()&+$/";
    if (!text.starts_with(';') || text.ends_with(';') || text.size() > most)
        return false;
    auto const fits = [marks](char c) {
        return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == ';' || c == '=' ||
               marks.find(c) != std::string_view::npos;
    };
    return std::all_of(text.begin(), text.end(), fits) && text.find(";;") == std::string_view::npos &&
           text.find(";=") == std::string_view::npos;
}

// On one line and without a tab, so that it can stand in any answer.
bool isAny(std::string_view text) {
    return !text.empty() &&
           std::none_of(text.begin(), text.end(), [](char c) { return (c >= 0 && c < ' ') || c == 0x7f; });
}

struct Key {
    char const* name;
    std::string Network::*place;
    bool (*fits)(std::string_view text);
    char const* must;
};

constexpr std::array<Key, 8> keysCM = {{
    {"name", &Network::name, isAny, "be a text in quotation marks, on one line"},
    {"mcc", &Network::mcc, isMcc, "be three digits in quotation marks"},
    {"mnc", &Network::mnc, isMnc, "be two or three digits in quotation marks"},
    {"routingNumber", &Network::routingNumber, isRoutingNumber,
     "be a plus and digits, or at most 32 hexadecimal digits, in quotation marks"},
    {"routingContext", &Network::routingContext, isContext,
     "be a plus and digits, or a domain name, in quotation marks"},
    {"serviceProvider", &Network::serviceProvider, isAny, "be a text in quotation marks, on one line"},
    {"parameters", &Network::parameters, isParameters,
     "be parameters of a URI in quotation marks, each behind a ';', 128 characters at most: \";cic=+44123\""},
    {"text", &Network::text, isAny, "be a text in quotation marks, on one line"},
}};

void take(Network& network, toml::key const& name, toml::node const& node, std::filesystem::path const& file) {
    auto const key = std::find_if(keysCM.begin(), keysCM.end(), [&](Key const& each) { return name == each.name; });
    if (key == keysCM.end())
        throw errorAt(file, name.source(),
                      "unknown key '" + shortened(name.str()) + "' in [" + shortened(network.id) + "]");
    auto const* const text = node.as_string();
    if (text == nullptr || !key->fits(text->get()))
        throw errorAt(file, node.source(), std::string("'") + key->name + "' must " + key->must);
    network.*(key->place) = text->get();
}

Network networkOf(toml::key const& id, toml::node const& node, std::filesystem::path const& file) {
    auto const* const table = node.as_table();
    if (table == nullptr)
        throw errorAt(file, id.source(),
                      "'" + shortened(id.str()) + "' must be a table: [" + shortened(id.str()) + "]");
    if (id.str().empty())
        throw errorAt(file, id.source(), "a network must have an identifier");
    Network network;
    network.id = id.str();
    for (auto const& [key, value] : *table)
        take(network, key, value, file);
    bool const isLocal = !network.routingNumber.empty() && network.routingNumber.front() != '+';
    if (isLocal == network.routingContext.empty())
        throw errorAt(file, id.source(),
                      isLocal
                          ? "[" + shortened(network.id) + "] needs 'routingContext': its 'routingNumber' has no plus"
                          : "[" + shortened(network.id) +
                                "] has a 'routingContext', which only a 'routingNumber' "
                                "without a plus has");
    return network;
}

} // namespace

NetworkTable NetworkTable::read(std::filesystem::path const& file) {
    return parse(readWhole(file), file);
}

// The parser refuses a table that comes twice.
NetworkTable NetworkTable::parse(std::string_view text, std::filesystem::path const& file) {
    NetworkTable table;
    for (auto const& [id, node] : parseToml(text, file))
        table.networksM.push_back(networkOf(id, node, file));
    std::sort(table.networksM.begin(), table.networksM.end(),
              [](Network const& a, Network const& b) { return a.id < b.id; });
    return table;
}

Network const* NetworkTable::find(std::string_view id) const {
    auto const found =
        std::lower_bound(networksM.begin(), networksM.end(), id,
                         [](Network const& network, std::string_view text) { return network.id < text; });
    return found != networksM.end() && found->id == id ? &*found : nullptr;
}

void appendNetwork(std::string& out, std::string_view id, Network const* known) {
    JsonWriter writer(out);
    writer.beginObject().member("id", id);
    if (known != nullptr)
        for (Key const& key : keysCM)
            if (std::string const& value = known->*(key.place); !value.empty())
                writer.member(key.name, value);
    writer.endObject();
}

} // namespace nphost
