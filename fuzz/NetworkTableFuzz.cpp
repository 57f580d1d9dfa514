// Fuzz target: the table of networks.
//
// Input: the text of its file. Accepted text must give networks that stand in the order of their identifiers, are found
// by them, and, written out again as plain TOML, parse to the same; refused text must give one printable line that
// names file and line. Anything thrown other than ConfigurationError ends the program.
#include "fuzz/Fuzz.h"
#include "host/config/ConfigurationError.h"
#include "host/fields/NetworkTable.h"

#include <algorithm>
#include <cctype>
#include <optional>

namespace {

using npfuzz::checkEqual;
using nphost::Network;
using nphost::NetworkTable;

constexpr std::size_t LONGEST_INPUT = 8192;

std::string tomlText(std::string_view text) {
    std::string result = "\"";
    for (char const character : text) {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\u%04X", static_cast<unsigned char>(character));
        bool const plain =
            static_cast<unsigned char>(character) >= ' ' && character != 127 && character != '"' && character != '\\';
        result += plain ? std::string(1, character) : std::string(escaped);
    }
    return result + "\"";
}

std::string written(NetworkTable const& table) {
    std::string text;
    for (Network const& network : table) {
        text += "[" + tomlText(network.id) + "]\n";
        for (auto const& [key, value] :
             {std::pair("name", network.name), std::pair("mcc", network.mcc), std::pair("mnc", network.mnc),
              std::pair("routingNumber", network.routingNumber), std::pair("routingContext", network.routingContext),
              std::pair("serviceProvider", network.serviceProvider), std::pair("parameters", network.parameters),
              std::pair("text", network.text)})
            if (!value.empty())
                text += std::string(key) + " = " + tomlText(value) + "\n";
    }
    return text;
}

void checkMessage(std::string_view text, std::string_view message) {
    checkEqual("the message's beginning", text, message.substr(0, 7), "n.toml:");
    bool const hasLine = message.size() > 7 && std::isdigit(static_cast<unsigned char>(message[7])) != 0;
    checkEqual("the message's having a line", message, hasLine, true);
    bool const printable = std::none_of(message.begin(), message.end(), [](char character) {
        return static_cast<unsigned char>(character) < ' ' || character == 127;
    });
    checkEqual("the message's being printable", message, printable, true);
}

std::optional<NetworkTable> parsed(std::string_view text) {
    try {
        return NetworkTable::parse(text, "n.toml");
    } catch (nphost::ConfigurationError const& error) {
        checkMessage(text, error.what());
        return std::nullopt;
    }
}

void checkNetworks(std::string_view text, NetworkTable const& table) {
    std::string before;
    for (Network const& network : table) {
        checkEqual("order", text, before < network.id, true);
        checkEqual("being found", network.id, table.find(network.id) == &network, true);
        // What call records and SIP addresses are given must not carry anything else along.
        for (std::string const* const code :
             {&network.mcc, &network.mnc, &network.routingNumber, &network.routingContext})
            checkEqual("a code's characters", *code, code->find_first_of("\r\n\t\" ;,<>@") == std::string::npos, true);
        checkEqual("parameters' characters", network.parameters,
                   network.parameters.find_first_of("\r\n\t\" ,<>@!\\") == std::string::npos, true);
        before = network.id;
    }
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const text = npfuzz::textOf(data, std::min(size, LONGEST_INPUT));
    std::optional<NetworkTable> const table = parsed(text);
    if (!table)
        return 0;
    checkNetworks(text, *table);
    std::string const again = written(*table);
    std::optional<NetworkTable> const reread = parsed(again);
    checkEqual("acceptance of what was accepted", again, reread.has_value(), true);
    checkEqual("reading back", again, written(*reread), again);
    return 0;
}
