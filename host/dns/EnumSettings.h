// nphost::EnumSettings: the table [enum] of the configuration. With it the daemon answers ENUM over DNS.
//
//     listen = ["127.0.0.1:5353"]   # UDP and TCP; sockets may also be passed by systemd
//     threads = 2                   # that serve; default: one a processor
//     ttl = 60                      # seconds that an answer may be kept: how stale one may be
//     leastDigits = 7               # of a number that is answered for; shorter ones exist, and have no records
//     trusted = ["10.0.0.0/8"]      # who asks from there needs no cookie, and is not limited
//     maxAnswersPerSecond = 200     # to others, one network's addresses together; 0: no limit
//     maxConnections = 1024         # over TCP at once, in all
//     maxConnectionsPerAddress = 64 # and of one address
//     idleSeconds = 10              # after which a connection without a question is closed
//
//     [[enum.apex]]
//     name = "e164.example."
//     ported = "tel:{number};npdi;rn={rn}[;rn-context={rn-context}]{parameters}" # UriTemplate.h
//     notPorted = "tel:{number};npdi"
//     noRouting = "tel:{number};npdi"  # ported, but of the network lacks what `ported` needs
//     gateway = "gw.example.net"       # with it there is a sip: address, too
//     nameServer = "ns.example.net."   # of NS and SOA; default: the apex
//     contact = "dns.example.net."     # of the SOA: the address dns@example.net
//
// Threads: a value. Errors: those of Section.h.
#pragma once

#include "host/config/Configuration.h"
#include "host/dns/Cookies.h"
#include "host/dns/UriTemplate.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace nphost {

// The name as it lies on the wire, a dot behind it or not. HostError for what is none.
std::string dnsNameOf(std::string_view text);

// The addresses that begin with the same bits.
struct AddressRange {
    DnsClient network;
    unsigned bits = 0;

    bool has(DnsClient const& client) const;
};

struct EnumApexSettings {
    std::string name;       // as on the wire, letters small
    std::string nameServer; // as on the wire, as the next one
    std::string contact;
    std::string gateway; // empty: none
    UriTemplate ported{"tel:{number};npdi;rn={rn}[;rn-context={rn-context}]{parameters}"};
    UriTemplate notPorted{"tel:{number};npdi"};
    UriTemplate noRouting{"tel:{number};npdi"};

    void declare(Section& apex);
};

struct EnumSettings {
    static constexpr std::uint64_t mostTtlCM = 86'400;

    bool isOn = false; // the file has the table
    std::vector<std::string> listen;
    std::vector<EnumApexSettings> apexes;
    std::vector<AddressRange> trusted;
    std::optional<std::uint64_t> threads;
    std::uint64_t ttl = 60;
    std::uint64_t leastDigits = 7;
    std::uint64_t maxAnswersPerSecond = 200;
    std::uint64_t maxConnections = 1024;
    std::uint64_t maxConnectionsPerAddress = 64;
    std::uint64_t idleSeconds = 10;

    bool trusts(DnsClient const& client) const;

    static void declare(Section& section, Configuration& configuration);
};

} // namespace nphost
