// nphost::NetworkTable: what is known of networks besides the identifiers that the data have.
//
// Purpose: a file of TOML has a table a network, under its identifier. All keys are optional texts:
//
//     [D001]
//     name = "Example Mobile"
//     mcc = "234"                      # mobile country code: 3 digits (ITU-T E.212)
//     mnc = "15"                       # mobile network code: 2 or 3 digits
//     routingNumber = "+447990010"     # rn: global, or digits of a context of its own (RFC 4694)
//     routingContext = "+44"           # rn-context: a global prefix or a domain
//     serviceProvider = "D001"         # the provider's identity
//     parameters = ";cic=+44123"       # further parameters of its tel: URIs
//     text = "..."                     # whatever else
//
// Ownership: owns its texts. Threads: constant once read. Errors: ConfigurationError names file, line and reason;
// std::bad_alloc. Complexity: a look is logarithmic in the networks.
#pragma once

#include "host/config/Configuration.h"

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace nphost {

struct Network { // empty: not said
    std::string id;
    std::string name;
    std::string mcc;
    std::string mnc;
    std::string routingNumber;
    std::string routingContext;
    std::string serviceProvider;
    std::string parameters;
    std::string text;
};

class NetworkTable {
  public:
    //     networks = "networks.toml"   # in [host]
    struct Settings {
        std::filesystem::path file; // empty: there is no table

        static void declare(Section& host, Configuration& configuration) {
            host.file("networks", configuration.place<Settings>().file);
        }
    };

    static NetworkTable read(std::filesystem::path const& file);
    static NetworkTable parse(std::string_view text, std::filesystem::path const& file);

    // Null when it has none of that identifier.
    Network const* find(std::string_view id) const;

    std::size_t size() const { return networksM.size(); }
    // By identifier.
    std::vector<Network>::const_iterator begin() const { return networksM.begin(); }
    std::vector<Network>::const_iterator end() const { return networksM.end(); }

  private:
    std::vector<Network> networksM;
};

// {"id":"D001","name":...}: with what is known; null is a network that the table does not have.
void appendNetwork(std::string& out, std::string_view id, Network const* known);

} // namespace nphost
