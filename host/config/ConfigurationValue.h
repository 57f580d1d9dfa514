// nphost::ConfigurationValue: a key of the configuration file and its value, on their way to whoever declared the key.
//
// Purpose: what is asked of values of each type, in one place, with messages that name file, line and key.
// Ownership: borrows the parsed file.
// Threads: no state of its own.
// Errors: ConfigurationError for a value that is not what is asked for; std::bad_alloc.
// Complexity: linear in the value.
#pragma once

#include "host/config/TomlFile.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace nphost {

class Section;

class ConfigurationValue {
  public:
    ConfigurationValue(std::filesystem::path const& file, toml::key const& key, toml::node const& node)
        : fileM(file), keyM(key), nodeM(node) {}

    std::string text() const;
    // A text of digits that may begin with a zero.
    std::string code() const;
    // An integer as a text, or a text.
    std::string textOrInteger() const;
    bool flag() const;
    std::uint64_t number(std::uint64_t least, std::uint64_t most) const; // both below 2^63
    std::uint32_t percent() const;                                       // in thousandths
    std::filesystem::path file() const;
    std::filesystem::path module() const;
    std::vector<std::filesystem::path> files() const;
    std::vector<std::filesystem::path> modules() const;
    std::vector<std::string> texts() const;

    // Each table of a list of them, [[key]].
    void eachTable(std::function<void(ConfigurationValue const& table)> const& take) const;

    // A HostError of the judge's becomes one of this value.
    void check(std::function<void()> const& judge) const;

    // That relative names are taken from.
    std::filesystem::path folder() const { return fileM.parent_path(); }

    // Gives each key of this table to whoever declared it in the section, and refuses one that nobody has.
    void readInto(Section const& section) const;

  private:
    using Path = std::filesystem::path;

    std::string shownKey() const;
    ConfigurationError error(toml::source_region const& where, std::string_view reason) const;
    template <class Entry>
    std::vector<Entry> list(Entry (ConfigurationValue::*entry)() const) const;

    Path const& fileM;
    toml::key const& keyM;
    toml::node const& nodeM;
};

// The same for the file itself, whose keys are the tables at its top.
void readInto(Section const& top, toml::table const& root, std::filesystem::path const& file);

} // namespace nphost
