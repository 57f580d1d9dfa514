// nphost::Section: a table of the configuration file, as the components whose keys stand in it declare it.
//
// Purpose: a component names its keys and the places into which their values go, next to the code that uses them; the
// reader (Configuration.h) goes through the file and refuses what nobody has declared. What a key must be is said by
// the function that declares it:
//   file, files        a text that names a file or folder, or a list of them; relative ones are taken from the
//                      configuration's folder
//   module, modules    the same, but a name without a slash stays one, for the system's own search
//   texts              a list of texts
//   flag               true or false
//   number             a whole number, of which least and most are said
//   percent            0 to 100 with at most three decimals, kept in thousandths
//   key                what its function asks of the value (ConfigurationValue.h)
// A place keeps its value where the file has no such key.
// Ownership: places are borrowed until the file has been read; a section owns those within it.
// Threads: one thread.
// Errors: declaring: std::bad_alloc; reading: ConfigurationError, too.
// Complexity: declaring is constant; a key of the file is sought among all of its table.
#pragma once

#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace nphost {

class ConfigurationValue;

class Section {
  public:
    using Path = std::filesystem::path;
    using Paths = std::vector<Path>;
    using Take = std::function<void(ConfigurationValue const& value)>;

    // As messages name it: "host.guard".
    explicit Section(std::string name) : nameM(std::move(name)) {}

    void file(char const* key, Path& place);
    void module(char const* key, Path& place);
    void files(char const* key, std::optional<Paths>& place);
    void modules(char const* key, Paths& place);
    void texts(char const* key, std::vector<std::string>& place);
    void flag(char const* key, bool& place);
    void number(char const* key, std::uint64_t least, std::uint64_t most, std::uint64_t& place);
    void number(char const* key, std::uint64_t least, std::uint64_t most, std::optional<std::uint64_t>& place);
    void percent(char const* key, std::optional<std::uint32_t>& place);
    // `take` says what becomes of the value.
    void key(char const* key, Take take);

    // True when the file has the table, be it empty.
    void present(bool& place) { presentM = &place; }
    void notePresence() const {
        if (presentM != nullptr)
            *presentM = true;
    }

    // A table in this one; the same one whoever asks for it.
    Section& table(std::string const& name);

    std::string const& name() const { return nameM; }
    // Null when nobody has declared it.
    Take const* find(std::string_view key) const;

  private:
    struct Key {
        std::string name;
        Take take;
    };

    std::string nameM;
    bool* presentM = nullptr;
    std::vector<Key> keysM;
    std::deque<Section> tablesM; // which are referred to
};

} // namespace nphost
