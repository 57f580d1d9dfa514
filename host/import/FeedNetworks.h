// nphost::FeedNetworks: the network identifiers of a feed, as the data write them.
//
// Purpose: an identifier of the data has no white space: each run of blanks and tabs inside a name becomes one
// underscore. Two different names that become the same identifier would be one network afterwards: that is an error.
// Units: identifiers are numbered from 0 in the order in which they came.
// Ownership: owns all names; what nameOf returns is valid as long as the object.
// Threads: one at a time.
// Errors: HostError that names both; std::bad_alloc.
// Complexity: a hash look-up a name.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

namespace nphost {

class FeedNetworks {
  public:
    // The number of the identifier that a name without blanks around it becomes.
    std::uint32_t numberOf(std::string_view name);

    std::string const& nameOf(std::uint32_t number) const { return networksM[number].identifier; }

  private:
    struct Network {
        std::string written; // in the feed
        std::string identifier;
    };
    using Numbers = std::unordered_map<std::string_view, std::uint32_t>; // the views are of networksM

    std::uint32_t add(std::string_view name);

    std::deque<Network> networksM; // nothing moves
    Numbers byWrittenM;
    Numbers byIdentifierM;
    std::uint32_t latestM = 0; // feeds come in runs of one network
};

} // namespace nphost
