// Fuzz target: the host's configuration file.
//
// Input: the text of a configuration file. Accepted text must give values that, written out again as plain
// TOML, parse to the same configuration; refused text must give one printable line that names the file.
// Anything thrown other than ConfigurationError ends the program.
#include "fuzz/Fuzz.h"
#include "host/cli/Sections.h"
#include "host/config/Configuration.h"
#include "host/daemon/ClientModules.h"
#include "host/module/GuardLimits.h"
#include "host/module/HostSettings.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>
#include <vector>

namespace {

using npfuzz::checkEqual;
using nphost::Configuration;

constexpr char FILE_NAME[] = "/etc/numberportability/nphost.toml";
constexpr std::size_t LONGEST_INPUT = 8192;
constexpr std::array KEYS = {
    "FileName",    "CountryCode", "NationalAccessCode", "InternationalAccessCode", "InternationalAccessCodeSign",
    "SearchMethod"};

std::string tomlText(std::string_view text) {
    std::string result = "\"";
    for (char const character : text) {
        auto const code = static_cast<unsigned char>(character);
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\u%04X", code);
        bool const plain = code >= ' ' && code != 127 && character != '"' && character != '\\';
        result += plain ? std::string(1, character) : std::string(escaped);
    }
    return result + "\"";
}

// The configuration as a text that parses to it.
std::string written(Configuration const& configuration) {
    std::string text;
    if (BAS::RegistryEntry const* const plugIn = configuration.registry.find(nphost::plugInNameCM)) {
        text += "[DAT_NumberPortability]\n";
        for (char const* const key : KEYS)
            if (BAS::RegistryEntry const* const entry = plugIn->find(key))
                text += std::string(key) + " = " + tomlText(entry->value().view()) + '\n';
    }
    auto const settings = configuration.of<nphost::HostSettings>();
    text += "[host]\n";
    for (auto const& [key, value] : {std::pair("module", settings.module), std::pair("messages", settings.messages),
                                     std::pair("probeFolder", settings.probeFolder)})
        if (!value.empty())
            text += std::string(key) + " = " + tomlText(value.native()) + '\n';
    text += "clients = [";
    for (std::filesystem::path const& client : configuration.of<nphost::ClientModules::Settings>().clients)
        text += tomlText(client.native()) + ", ";
    text += "]\n";
    if (auto const guard = configuration.of<nphost::GuardLimits>(); guard.any())
        text += "guard = {" + textOf(guard) + "}\n";
    return text;
}

void checkMessage(std::string_view text, std::string_view message) {
    std::string const start = std::string(FILE_NAME) + ':';
    checkEqual("the message's beginning", text, message.substr(0, start.size()), start);
    bool const printable = std::none_of(message.begin(), message.end(), [](char character) {
        return static_cast<unsigned char>(character) < ' ' || character == 127;
    });
    checkEqual("the message's being printable", message, printable, true);
}

std::optional<Configuration> parsed(std::string_view text) {
    try {
        return nphost::parseConfiguration(text, FILE_NAME, nphost::sectionsCM);
    } catch (nphost::ConfigurationError const& error) {
        checkMessage(text, error.what());
        return std::nullopt;
    }
}

void checkPaths(std::string_view text, Configuration const& configuration) {
    auto const settings = configuration.of<nphost::HostSettings>();
    for (std::filesystem::path const& path : {settings.messages, settings.probeFolder})
        checkEqual("a path's being absolute", text, path.empty() || path.is_absolute(), true);
    std::vector<std::filesystem::path> modules = configuration.of<nphost::ClientModules::Settings>().clients;
    modules.push_back(settings.module);
    for (std::filesystem::path const& module : modules) {
        bool const isName = module.native().find('/') == std::string::npos;
        checkEqual("a module's being a name or absolute", text, isName || module.is_absolute(), true);
    }
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const text = npfuzz::textOf(data, std::min(size, LONGEST_INPUT));
    std::optional<Configuration> const configuration = parsed(text);
    if (!configuration)
        return 0;
    checkPaths(text, *configuration);
    std::string const again = written(*configuration);
    std::optional<Configuration> const reread = parsed(again);
    checkEqual("acceptance of what was accepted", again, reread.has_value(), true);
    checkEqual("reading back", again, written(*reread), again);
    return 0;
}
