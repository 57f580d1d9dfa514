#include "host/enrich/NetworkFields.h"

namespace nphost {

NetworkFields::Network& NetworkFields::find(std::string_view network) {
    auto const found = networksM.find(network);
    if (found != networksM.end())
        return found->second;
    Network& added = networksM[std::string(network)];
    added.writable = writerM.encode(added.field, network);
    return added;
}

void NetworkFields::addTo(NetworkCounts& counts) const {
    for (auto const& [name, network] : networksM) {
        // One that stood only in records that were then rejected has none.
        if (network.numbers > 0)
            counts.add(name, network.numbers);
    }
}

} // namespace nphost
