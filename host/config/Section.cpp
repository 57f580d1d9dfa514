#include "host/config/Section.h"

#include "host/config/ConfigurationValue.h"

#include <algorithm>
#include <utility>

namespace nphost {

void Section::file(char const* key, Path& place) {
    this->key(key, [&place](ConfigurationValue const& value) { place = value.file(); });
}

void Section::module(char const* key, Path& place) {
    this->key(key, [&place](ConfigurationValue const& value) { place = value.module(); });
}

void Section::files(char const* key, std::optional<Paths>& place) {
    this->key(key, [&place](ConfigurationValue const& value) { place = value.files(); });
}

void Section::modules(char const* key, Paths& place) {
    this->key(key, [&place](ConfigurationValue const& value) { place = value.modules(); });
}

void Section::texts(char const* key, std::vector<std::string>& place) {
    this->key(key, [&place](ConfigurationValue const& value) { place = value.texts(); });
}

void Section::flag(char const* key, bool& place) {
    this->key(key, [&place](ConfigurationValue const& value) { place = value.flag(); });
}

void Section::number(char const* key, std::uint64_t least, std::uint64_t most, std::uint64_t& place) {
    this->key(key, [&place, least, most](ConfigurationValue const& value) { place = value.number(least, most); });
}

void Section::number(char const* key, std::uint64_t least, std::uint64_t most, std::optional<std::uint64_t>& place) {
    this->key(key, [&place, least, most](ConfigurationValue const& value) { place = value.number(least, most); });
}

void Section::percent(char const* key, std::optional<std::uint32_t>& place) {
    this->key(key, [&place](ConfigurationValue const& value) { place = value.percent(); });
}

void Section::key(char const* key, Take take) {
    keysM.push_back({key, std::move(take)});
}

// Several components may have keys in one table: [host] is such a one.
Section& Section::table(std::string const& name) {
    std::string const whole = nameM.empty() ? name : nameM + '.' + name;
    auto const same = [&whole](Section const& table) { return table.name() == whole; };
    if (auto const found = std::find_if(tablesM.begin(), tablesM.end(), same); found != tablesM.end())
        return *found;
    // It may be referred to: a deque does not move its tables when further ones come.
    Section& made = tablesM.emplace_back(whole);
    key(name.c_str(), [&made](ConfigurationValue const& value) { value.readInto(made); });
    return made;
}

Section::Take const* Section::find(std::string_view key) const {
    auto const same = [key](Key const& each) { return each.name == key; };
    auto const found = std::find_if(keysM.begin(), keysM.end(), same);
    return found == keysM.end() ? nullptr : &found->take;
}

} // namespace nphost
