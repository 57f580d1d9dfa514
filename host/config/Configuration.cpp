#include "host/config/Configuration.h"

#include "host/base/StandardError.h"
#include "host/config/ConfigurationValue.h"

namespace nphost {

namespace {

constexpr char const* fileNameCM = "FileName";

// What the plug-in is told is what the file says, key by key: it looks keys up by name and has defaults of its own.
void declarePlugIn(Section& keys, BAS::RegistryEntry& subtree) {
    auto const add = [&keys, &subtree](char const* key, auto const& textOf) {
        keys.key(key, [&subtree, key, textOf](ConfigurationValue const& value) {
            subtree.append(BAS::RegistryEntry(key, textOf(value)));
        });
    };
    // Relative names are the configuration folder's. The plug-in would take them from wherever the process was started.
    add(fileNameCM, [](ConfigurationValue const& value) { return value.file().string(); });
    // The plug-in reads a text, and judges it itself.
    add("SearchMethod", [](ConfigurationValue const& value) { return value.textOrInteger(); });
    for (char const* const code :
         {"CountryCode", "NationalAccessCode", "InternationalAccessCode", "InternationalAccessCodeSign"})
        add(code, [](ConfigurationValue const& value) { return value.code(); });
}

} // namespace

std::optional<std::string> Configuration::plugInValue(char const* key) const {
    BAS::RegistryEntry const* const subtree = registry.find(plugInNameCM);
    BAS::RegistryEntry const* const entry = subtree == nullptr ? nullptr : subtree->find(key);
    return entry == nullptr ? std::nullopt : std::optional(entry->value().str());
}

std::string Configuration::dataFile() const {
    return plugInValue(fileNameCM).value_or(std::string());
}

void Configuration::useDataFile(std::string const& file) {
    BAS::RegistryEntry* const subtree = registry.find(plugInNameCM);
    if (subtree == nullptr) // the plug-in will report that
        return;
    BAS::String const key{fileNameCM};
    BAS::RegistryEntry* const fileName = subtree->find(key);
    (fileName != nullptr ? *fileName : subtree->append(BAS::RegistryEntry(key))).value(BAS::String(file));
}

Configuration parseConfiguration(std::string_view text, std::filesystem::path const& file, Sections sections) {
    Configuration configuration;
    Section top{std::string()};
    // All are declared before the file is read: its tables come in an order of their own.
    for (SectionDeclaration const& declaration : sections)
        declaration.declare(top.table(declaration.table), configuration);
    // Its subtree is there when the file has the table, be it empty: without it, the plug-in reports that it lacks.
    top.key(plugInNameCM, [&configuration](ConfigurationValue const& value) {
        Section plugIn(plugInNameCM);
        declarePlugIn(plugIn, configuration.registry.append(BAS::RegistryEntry(plugInNameCM)));
        value.readInto(plugIn);
    });
    readInto(top, parseToml(text, file), file);
    return configuration;
}

Configuration readConfiguration(std::filesystem::path const& file, Sections sections) {
    // Before the file is read: what is wrong with it would be written into it.
    StandardError::keepOff(file, "the configuration file");
    Configuration configuration = parseConfiguration(readWholeOrPipe(file), file, sections);
    StandardError::keepOff(configuration.dataFile(), "the data file itself");
    return configuration;
}

} // namespace nphost
