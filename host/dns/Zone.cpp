#include "host/dns/Zone.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"
#include "host/config/DiallingCodes.h"
#include "host/dns/Wire.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace nphost {

namespace {

bool endsWith(std::string_view name, std::string_view apex) {
    return name.size() >= apex.size() &&
           std::equal(apex.begin(), apex.end(), name.end() - static_cast<std::ptrdiff_t>(apex.size()),
                      [](char small, char any) { return small == lowerDnsByte(any); });
}

// What the labels before the apex say; none when the apex does not begin with a label of its own.
std::optional<EnumName> readBefore(std::string_view labels, std::size_t most) {
    EnumName name;
    name.kind = labels.empty() ? EnumName::APEX : EnumName::NUMBER;
    while (!labels.empty()) {
        std::size_t const length = static_cast<unsigned char>(labels[0]);
        if (length >= labels.size())
            return std::nullopt;
        if (length != 1 || !isDigit(labels[1]) || name.count == most)
            name.kind = EnumName::NEVER;
        else if (name.kind == EnumName::NUMBER)
            name.bytes[name.count++] = labels[1];
        labels.remove_prefix(length + 1);
    }
    std::reverse(name.bytes.begin(), name.bytes.begin() + static_cast<std::ptrdiff_t>(name.count));
    if (name.kind == EnumName::NUMBER && name.bytes[0] == '0')
        name.kind = EnumName::NEVER;
    return name;
}

} // namespace

EnumZones::EnumZones(EnumSettings settings, Configuration const& configuration)
    : settingsM(std::move(settings)), accessCodeM(diallingCodesOf(configuration).internationalAccess) {
    std::erase_if(accessCodeM, [](char c) { return !isDigit(c); });
    if (settingsM.apexes.empty())
        throw HostError("[enum] needs an apex: [[enum.apex]] with a 'name'");
    std::stable_sort(settingsM.apexes.begin(), settingsM.apexes.end(),
                     [](auto const& one, auto const& other) { return one.name.size() > other.name.size(); });
}

bool EnumZones::isAboveApex(std::string_view name) const {
    return std::any_of(settingsM.apexes.begin(), settingsM.apexes.end(), [name](EnumApexSettings const& each) {
        std::string_view apex = each.name;
        while (apex.size() > name.size())
            apex.remove_prefix(static_cast<unsigned char>(apex[0]) + std::size_t{1});
        return apex.size() == name.size() && endsWith(name, apex);
    });
}

EnumName EnumZones::read(std::string_view name) const {
    for (EnumApexSettings const& apex : settingsM.apexes) {
        if (!endsWith(name, apex.name))
            continue;
        std::size_t const at = name.size() - apex.name.size();
        if (std::optional<EnumName> meaning = readBefore(name.substr(0, at), EnumName().bytes.size())) {
            meaning->apex = &apex;
            meaning->apexAt = at;
            if (meaning->kind == EnumName::NEVER && isAboveApex(name))
                meaning->kind = EnumName::EMPTY;
            return *meaning;
        }
    }
    return {};
}

} // namespace nphost
