#include "host/enrich/NetworkFields.h"

namespace nphost {

NetworkFields::Network& NetworkFields::find(std::string_view network) {
    auto const found = networksM.find(network);
    if (found != networksM.end())
        return found->second;
    Network& added = networksM[std::string(network)];
    added.writable = writerM.encode(added.field, network);
    added.writable = addDetails(added, network) && added.writable;
    return added;
}

bool NetworkFields::addDetails(Network& to, std::string_view network) const {
    // In the order of Added.
    constexpr std::array<std::string nphost::Network::*, detailsCM> members = {
        &nphost::Network::name, &nphost::Network::mcc, &nphost::Network::mnc, &nphost::Network::routingNumber,
        &nphost::Network::routingContext};
    nphost::Network const* const known = tableM == nullptr ? nullptr : tableM->find(network);
    bool writable = true;
    for (Added const added : wantedM)
        if (known != nullptr && isOfTable(added))
            if (std::string const& text = known->*members[detailOf(added)]; !text.empty())
                writable = writerM.encode(to.details[detailOf(added)], text) && writable;
    return writable;
}

void NetworkFields::addTo(NetworkCounts& counts) const {
    for (auto const& [name, network] : networksM) {
        // One that stood only in records that were then rejected has none.
        if (network.numbers > 0)
            counts.add(name, network.numbers);
    }
}

} // namespace nphost
