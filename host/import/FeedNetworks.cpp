#include "host/import/FeedNetworks.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"

namespace nphost {

namespace {

std::string identifierOf(std::string_view name) {
    std::string identifier;
    for (char const c : name) {
        bool const blank = c == ' ' || c == '\t';
        if (!blank)
            identifier += c;
        else if (!identifier.ends_with('\0'))
            identifier += '\0'; // no name has one
    }
    for (char& c : identifier)
        c = c == '\0' ? '_' : c;
    return identifier;
}

} // namespace

std::uint32_t FeedNetworks::numberOf(std::string_view name) {
    // Feeds are often sorted by network: then the name is nearly always the one before.
    if (latestM < networksM.size() && networksM[latestM].written == name)
        return latestM;
    auto const found = byWrittenM.find(name);
    latestM = found != byWrittenM.end() ? found->second : add(name);
    return latestM;
}

std::uint32_t FeedNetworks::add(std::string_view name) {
    auto const number = static_cast<std::uint32_t>(networksM.size());
    // In a deque, where it stays: both tables have views of its texts.
    networksM.push_back({std::string(name), identifierOf(name)});
    Network const& network = networksM.back();
    auto const [other, isNew] = byIdentifierM.emplace(network.identifier, number);
    // Later their records could not be told apart, in the data or in any answer.
    if (!isNew)
        throw HostError("the networks '" + shortened(networksM[other->second].written) + "' and '" + shortened(name) +
                        "' would become one, " + shortened(network.identifier) + ": rename one in the feed");
    byWrittenM.emplace(network.written, number);
    return number;
}

} // namespace nphost
