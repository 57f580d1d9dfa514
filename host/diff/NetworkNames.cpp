#include "host/diff/NetworkNames.h"

namespace nphost {

std::uint32_t NetworkNames::numberOf(std::string_view name) {
    // Files come in runs of one network.
    if (latestM != noneCM && namesM[latestM] == name)
        return latestM;
    auto const found = numbersM.find(name);
    if (found != numbersM.end())
        return latestM = found->second;
    std::size_t const cost = costCM + name.size();
    fullM = fullM || cost > roomM; // a shorter one later must not get in: equal names must fare alike
    if (fullM)
        return noneCM;
    auto const number = static_cast<std::uint32_t>(namesM.size());
    namesM.emplace_back(name);
    try {
        // The key is a view of the name that was just kept, which does not move.
        numbersM.emplace(namesM.back(), number);
    } catch (...) {
        namesM.pop_back();
        throw;
    }
    roomM -= cost;
    return latestM = number;
}

} // namespace nphost
