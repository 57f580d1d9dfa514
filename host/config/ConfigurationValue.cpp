#include "host/config/ConfigurationValue.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"
#include "host/config/Section.h"

#include <cmath>

namespace nphost {

namespace {

// Of the keys at the file's top, which are all tables.
constexpr char const* tablesCM = "; the tables are [DAT_NumberPortability] and [host]";

// An unknown key is an error: misspelt, a limit or a path would be off and nobody would know.
void readKeys(Section const& section, toml::table const& keys, std::filesystem::path const& file) {
    for (auto&& [key, node] : keys) {
        if (Section::Take const* const take = section.find(key.str())) {
            (*take)(ConfigurationValue(file, key, node));
            continue;
        }
        std::string const name = shortened(key.str());
        throw errorAt(file, key.source(),
                      section.name().empty()
                          ? "unknown " + std::string(node.is_table() ? "table" : "key") + " '" + name + "'" + tablesCM
                          : "unknown key '" + name + "' in [" + section.name() + "]");
    }
}

} // namespace

// A key may hold anything, and be of any length.
std::string ConfigurationValue::shownKey() const {
    return shortened(keyM.str());
}

ConfigurationError ConfigurationValue::error(toml::source_region const& where, std::string_view reason) const {
    return errorAt(fileM, where, "'" + shownKey() + "' must " + std::string(reason));
}

std::string ConfigurationValue::text() const {
    if (!nodeM.is_string())
        throw error(nodeM.source(), "be a text in quotation marks");
    return nodeM.as_string()->get();
}

std::string ConfigurationValue::code() const {
    if (nodeM.is_integer())
        throw error(keyM.source(), "be quoted, so that no leading zero is lost: " + shownKey() + " = \"" +
                                       std::to_string(nodeM.as_integer()->get()) + "\"");
    return text();
}

std::string ConfigurationValue::textOrInteger() const {
    return nodeM.is_integer() ? std::to_string(nodeM.as_integer()->get()) : text();
}

bool ConfigurationValue::flag() const {
    if (!nodeM.is_boolean())
        throw error(keyM.source(), "be true or false, without quotation marks");
    return nodeM.as_boolean()->get();
}

std::uint64_t ConfigurationValue::number(std::uint64_t least, std::uint64_t most) const {
    // No number that is asked for is negative, so -1 stands for what is no integer.
    std::int64_t const value = nodeM.is_integer() ? nodeM.as_integer()->get() : -1;
    if (value < 0 || static_cast<std::uint64_t>(value) < least || static_cast<std::uint64_t>(value) > most)
        throw error(keyM.source(), "be a whole number from " + std::to_string(least) + " to " + std::to_string(most));
    return static_cast<std::uint64_t>(value);
}

// In thousandths, so that a share is compared with it exactly.
std::uint32_t ConfigurationValue::percent() const {
    constexpr double whole = 100'000; // a hundred percent
    constexpr double noise = 1e-6;    // of a decimal fraction in binary
    double const value = nodeM.value<double>().value_or(-1) * 1000;
    double const thousandths = std::round(value);
    bool const isNumber = nodeM.is_integer() || nodeM.is_floating_point();
    // Asked so that what is not a number, too, is refused.
    if (!isNumber || !(thousandths >= 0 && thousandths <= whole) || std::abs(value - thousandths) > noise)
        throw error(keyM.source(), "be a number from 0 to 100 with at most three decimals");
    return static_cast<std::uint32_t>(thousandths);
}

std::filesystem::path ConfigurationValue::file() const {
    std::string const value = text();
    // The system would cut a name at a zero byte, and take another file.
    if (value.empty() || value.find('\0') != std::string::npos)
        throw error(nodeM.source(), "name a file or folder");
    return fileM.parent_path() / value;
}

std::filesystem::path ConfigurationValue::module() const {
    // First, for its checks: a name without a slash must not be empty or cut short either.
    Path const path = file();
    Path const name = text();
    return name.native().find('/') == std::string::npos ? name : path;
}

std::vector<std::filesystem::path> ConfigurationValue::files() const {
    return list(&ConfigurationValue::file);
}

std::vector<std::filesystem::path> ConfigurationValue::modules() const {
    return list(&ConfigurationValue::module);
}

std::vector<std::string> ConfigurationValue::texts() const {
    return list(&ConfigurationValue::text);
}

void ConfigurationValue::eachTable(std::function<void(ConfigurationValue const& table)> const& take) const {
    toml::array const* const tables = nodeM.as_array();
    if (tables == nullptr || tables->empty() || !tables->is_homogeneous<toml::table>())
        throw error(keyM.source(), "be tables: [[...]] with keys below");
    for (toml::node const& table : *tables)
        take(ConfigurationValue(fileM, keyM, table));
}

void ConfigurationValue::check(std::function<void()> const& judge) const {
    try {
        judge();
    } catch (HostError const& reason) {
        throw errorAt(fileM, nodeM.source(), "'" + shownKey() + "': " + reason.what());
    }
}

template <class Entry>
std::vector<Entry> ConfigurationValue::list(Entry (ConfigurationValue::*entry)() const) const {
    if (!nodeM.is_array())
        throw error(keyM.source(),
                    std::is_same_v<Entry, Path> ? "be a list: [\"FILE\", ...]" : "be a list: [\"TEXT\", ...]");
    std::vector<Entry> entries;
    for (toml::node const& member : *nodeM.as_array()) {
        if (!member.is_string())
            throw errorAt(fileM, member.source(), "each of '" + shownKey() + "' must be a text in quotation marks");
        // An entry has no key of its own: messages name the list's.
        entries.push_back((ConfigurationValue(fileM, keyM, member).*entry)());
    }
    return entries;
}

void ConfigurationValue::readInto(Section const& section) const {
    if (!nodeM.is_table())
        throw error(keyM.source(), "be a table: [" + shownKey() + "]");
    section.notePresence();
    readKeys(section, *nodeM.as_table(), fileM);
}

void readInto(Section const& top, toml::table const& root, std::filesystem::path const& file) {
    readKeys(top, root, file);
}

} // namespace nphost
