#include "host/config/Configuration.h"

#include "host/base/StandardError.h"
#include "host/base/Text.h"
#include "host/config/TomlFile.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <string>

namespace nphost {

namespace {

constexpr char const* hostTableCM = "host";
constexpr std::string_view fileNameCM = "FileName";
constexpr std::string_view searchMethodCM = "SearchMethod";
constexpr std::array<std::string_view, 6> plugInKeysCM = {
    fileNameCM,    "CountryCode", "NationalAccessCode", "InternationalAccessCode", "InternationalAccessCodeSign",
    searchMethodCM};

// One configuration file on its way into a Configuration.
class Reader {
  public:
    explicit Reader(std::filesystem::path const& file) : fileM(file) {}

    Configuration read(toml::table const& root) {
        for (auto&& [key, node] : root) {
            if (key.str() == plugInNameCM)
                readPlugIn(table(key, node));
            else if (key.str() == hostTableCM)
                readHost(table(key, node));
            else
                throw errorAt(fileM, key.source(),
                              "unknown " + std::string(node.is_table() ? "table" : "key") + " '" + text(key) +
                                  "'; the tables are [DAT_NumberPortability] and [host]");
        }
        return std::move(resultM);
    }

  private:
    static std::string text(toml::key const& key) { return shortened(key.str()); }

    toml::table const& table(toml::key const& key, toml::node const& node) const {
        if (toml::table const* const found = node.as_table())
            return *found;
        throw errorAt(fileM, key.source(), "'" + text(key) + "' must be a table: [" + text(key) + "]");
    }

    void readPlugIn(toml::table const& keys) {
        BAS::RegistryEntry& subtree = resultM.registry.append(BAS::RegistryEntry(plugInNameCM));
        for (auto&& [key, node] : keys) {
            if (std::find(plugInKeysCM.begin(), plugInKeysCM.end(), key.str()) == plugInKeysCM.end())
                throw unknownKey(key, plugInNameCM);
            subtree.append(BAS::RegistryEntry(std::string(key.str()), plugInValue(key, node)));
        }
    }

    std::string plugInValue(toml::key const& key, toml::node const& node) const {
        if (key.str() == searchMethodCM && node.is_integer())
            return std::to_string(node.as_integer()->get());
        if (key.str() == fileNameCM)
            return path(key, node).string();
        if (!node.is_string() && node.is_integer())
            throw errorAt(fileM, key.source(),
                          "'" + text(key) + "' must be quoted, so that no leading zero is lost: " + text(key) +
                              " = \"" + std::to_string(node.as_integer()->get()) + "\"");
        return string(key, node);
    }

    void readHost(toml::table const& keys) {
        for (auto&& [key, node] : keys) {
            if (key.str() == "module")
                resultM.module = modulePath(key, node);
            else if (key.str() == "messages")
                resultM.messages = path(key, node);
            else if (key.str() == "probeFolder")
                resultM.probeFolder = path(key, node);
            else if (key.str() == "socket")
                resultM.socket = path(key, node);
            else if (key.str() == "logFile")
                resultM.logFile = path(key, node);
            else if (key.str() == "announceChanges")
                resultM.announceChanges = boolean(key, node);
            else if (key.str() == "guard")
                readGuard(table(key, node));
            else if (key.str() == "deltaFolders")
                resultM.deltaFolders = list(key, node, &Reader::path);
            else if (key.str() == "clients")
                resultM.clients = list(key, node, &Reader::modulePath);
            else
                throw unknownKey(key, hostTableCM);
        }
    }

    void readGuard(toml::table const& keys) {
        constexpr std::int64_t mostRecords = 4'294'967'295;
        constexpr std::int64_t mostMebibytes = 1'000'000'000;
        GuardLimits& limits = resultM.guard;
        for (auto&& [key, node] : keys) {
            if (key.str() == "maxLossPercent")
                limits.maxLossPercent = percent(key, node);
            else if (key.str() == "maxRejectedPercent")
                limits.maxRejectedPercent = percent(key, node);
            else if (key.str() == "maxNumbersWithoutDigits")
                limits.maxNumbersWithoutDigits = integer(key, node, 0, mostRecords);
            else if (key.str() == "minRecords")
                limits.minRecords = integer(key, node, 0, mostRecords);
            else if (key.str() == "requireCompleteLastLine")
                limits.requireCompleteLastLine = boolean(key, node);
            else if (key.str() == "maxMemoryMiB")
                limits.maxMemoryMiB = integer(key, node, 1, mostMebibytes);
            else
                throw unknownKey(key, "host.guard");
        }
    }

    std::uint64_t integer(toml::key const& key, toml::node const& node, std::int64_t least, std::int64_t most) const {
        std::int64_t const value = node.is_integer() ? node.as_integer()->get() : least - 1;
        if (value < least || value > most)
            throw errorAt(fileM, key.source(),
                          "'" + text(key) + "' must be a whole number from " + std::to_string(least) + " to " +
                              std::to_string(most));
        return static_cast<std::uint64_t>(value);
    }

    // In thousandths, so that a share is compared with it exactly.
    std::uint32_t percent(toml::key const& key, toml::node const& node) const {
        constexpr double noise = 1e-6; // of a decimal fraction in binary
        double const value = node.value<double>().value_or(-1) * 1000;
        double const thousandths = std::round(value);
        bool const isNumber = node.is_integer() || node.is_floating_point();
        if (!isNumber || !(thousandths >= 0 && thousandths <= GuardLimits::wholeCM) ||
            std::abs(value - thousandths) > noise)
            throw errorAt(fileM, key.source(),
                          "'" + text(key) + "' must be a number from 0 to 100 with at most three decimals");
        return static_cast<std::uint32_t>(thousandths);
    }

    using Paths = std::vector<std::filesystem::path>;
    Paths list(toml::key const& key, toml::node const& node,
               std::filesystem::path (Reader::*entry)(toml::key const&, toml::node const&) const) const {
        if (!node.is_array())
            throw errorAt(fileM, key.source(), "'" + text(key) + "' must be a list: [\"FILE\", ...]");
        Paths paths;
        for (toml::node const& member : *node.as_array()) {
            if (!member.is_string())
                throw errorAt(fileM, member.source(), "each of '" + text(key) + "' must be a text in quotation marks");
            paths.push_back((this->*entry)(key, member));
        }
        return paths;
    }

    ConfigurationError unknownKey(toml::key const& key, std::string_view tableName) const {
        return errorAt(fileM, key.source(), "unknown key '" + text(key) + "' in [" + std::string(tableName) + "]");
    }

    std::string string(toml::key const& key, toml::node const& node) const {
        if (!node.is_string())
            throw errorAt(fileM, node.source(), "'" + text(key) + "' must be a text in quotation marks");
        return node.as_string()->get();
    }

    bool boolean(toml::key const& key, toml::node const& node) const {
        if (!node.is_boolean())
            throw errorAt(fileM, key.source(), "'" + text(key) + "' must be true or false, without quotation marks");
        return node.as_boolean()->get();
    }

    std::string pathText(toml::key const& key, toml::node const& node) const {
        std::string value = string(key, node);
        if (value.empty() || value.find('\0') != std::string::npos)
            throw errorAt(fileM, node.source(), "'" + text(key) + "' must name a file or folder");
        return value;
    }

    std::filesystem::path path(toml::key const& key, toml::node const& node) const {
        return fileM.parent_path() / pathText(key, node);
    }

    // A name without a slash stays one, for the system's own search.
    std::filesystem::path modulePath(toml::key const& key, toml::node const& node) const {
        std::string const value = pathText(key, node);
        return value.find('/') == std::string::npos ? std::filesystem::path(value) : path(key, node);
    }

    std::filesystem::path const& fileM;
    Configuration resultM;
};

} // namespace

std::string Configuration::dataFile() const {
    BAS::RegistryEntry const* const subtree = registry.find(plugInNameCM);
    BAS::RegistryEntry const* const fileName = subtree == nullptr ? nullptr : subtree->find(std::string(fileNameCM));
    return fileName == nullptr ? std::string() : fileName->value().str();
}

void Configuration::useDataFile(std::string const& file) {
    BAS::RegistryEntry* const subtree = registry.find(plugInNameCM);
    if (subtree == nullptr) // the plug-in will report that
        return;
    BAS::String const key{std::string(fileNameCM)};
    BAS::RegistryEntry* const fileName = subtree->find(key);
    (fileName != nullptr ? *fileName : subtree->append(BAS::RegistryEntry(key))).value(BAS::String(file));
}

Configuration parseConfiguration(std::string_view text, std::filesystem::path const& file) {
    return Reader(file).read(parseToml(text, file));
}

Configuration readConfiguration(std::filesystem::path const& file) {
    StandardError::keepOff(file, "the configuration file");
    Configuration configuration = parseConfiguration(readWhole(file), file);
    StandardError::keepOff(configuration.dataFile(), "the data file itself");
    return configuration;
}

} // namespace nphost
