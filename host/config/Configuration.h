// nphost::Configuration: what the configuration file says.
//
// Purpose: the file is TOML. The table [DAT_NumberPortability] becomes the plug-in's registry subtree, key by key. The
// other tables are the host's own and optional, as are their keys, each of which the component declares that it is for:
//
//     [DAT_NumberPortability]
//     FileName = "portability.dat"          # the data file
//     CountryCode = "44"                    # codes are quoted, so that none loses a leading zero
//     NationalAccessCode = "0"
//     InternationalAccessCode = "00"        # optional, as the two below
//     InternationalAccessCodeSign = "+"
//     SearchMethod = 0                      # 0 best match, 1 exact, 2 shortest prefix; a text or an integer
//
//     [host]                                # DaemonFiles.h, module/HostSettings.h, service/DeltaFolders.h, daemon/...
//     [host.guard]                          # module/GuardLimits.h
//     [http]                                # http/HttpSettings.h
//
// Relative paths are taken from the configuration file's folder. Whether a key of the plug-in's is missing is the
// plug-in's business, not checked here.
// Ownership: owns all values; it can be moved, which leaves references to places valid.
// Threads: none inside.
// Complexity: linear in the text.
// Errors: ConfigurationError for what is not TOML, an unknown table or key, a value of the wrong type or an unusable
// path; std::bad_alloc; nothing else.
#pragma once

#include "framework/BAS/RegistryEntry.h"
#include "host/config/ConfigurationError.h"
#include "host/config/Section.h"

#include <any>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <typeindex>

namespace nphost {

// The plug-in's registered name and table.
constexpr char const* plugInNameCM = "DAT_NumberPortability";

class Configuration {
  public:
    Configuration() = default;
    Configuration(Configuration const&) = delete;
    Configuration& operator=(Configuration const&) = delete;
    Configuration(Configuration&&) = default;
    Configuration& operator=(Configuration&&) = default;
    ~Configuration() = default;

    // What a component has made of its keys: its defaults, where the file has none of them.
    template <class Settings>
    Settings of() const {
        auto const found = settingsM.find(typeid(Settings));
        return found == settingsM.end() ? Settings() : *std::any_cast<Settings>(&found->second);
    }

    // Where that is kept, for whoever declares the keys.
    template <class Settings>
    Settings& place() {
        std::any& settings = settingsM[typeid(Settings)];
        return settings.has_value() ? *std::any_cast<Settings>(&settings) : settings.emplace<Settings>();
    }

    // What the plug-in is told under a key; none when it is told nothing.
    std::optional<std::string> plugInValue(char const* key) const;
    // What it is told is its data file; empty when it is told none.
    std::string dataFile() const;
    // Tells the plug-in another one.
    void useDataFile(std::string const& file);

    BAS::RegistryEntry registry{BAS::String()}; // root entry; its child is the plug-in's subtree, if it is there

  private:
    std::map<std::type_index, std::any> settingsM;
};

// Declares a component's keys in a table at the top of the file, or in tables of it. Several may share a table.
struct SectionDeclaration {
    char const* table;
    void (*declare)(Section& table, Configuration& configuration);
};
using Sections = std::span<SectionDeclaration const>;

Configuration parseConfiguration(std::string_view text, std::filesystem::path const& file, Sections sections);
// Also HostError when standard error is the configuration or the data file that it names: messages would go into it.
Configuration readConfiguration(std::filesystem::path const& file, Sections sections);

} // namespace nphost
