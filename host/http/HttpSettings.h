// nphost::HttpSettings: the table [http] of the configuration. With it the daemon answers over HTTP.
//
//     listen = ["127.0.0.1:8080", "unix:run/http"]  # addresses, or UNIX sockets; sockets may also be passed by systemd
//     threads = 2                        # that serve; default: one a processor, four at the most
//     certificate = "server.pem"         # TLS: the chain and
//     key = "server.key"                 # its private key; for every address of `listen` but UNIX sockets
//     clientAuthorities = "clients.pem"  # who presents a certificate of these authorities has the scopes
//     clientScopes = ["lookup"]          # named here; default: lookup
//     tokens = "tokens.toml"             # bearer tokens (Tokens.h)
//     maxConnections = 4096              # at once, in all
//     maxConnectionsPerAddress = 256     # and of one address
//     idleSeconds = 60                   # after which a connection without a request is closed
//     cacheSeconds = 60                  # that an answer may be kept by caches, at the most
//     maxDeltaMiB = 64                   # of the records of a delta that comes as a body
//     allowOrigins = ["https://a.b"]     # whose pages in browsers may ask; default: none
//     accessLog = "access.log"           # a line of JSON a request
//     logNumbers = false                 # whether it tells the numbers that were asked for
//
// Without TLS and without tokens or client certificates, only loopback addresses and UNIX sockets may be listened on.
// Threads: a value. Errors: those of Section.h.
#pragma once

#include "host/config/Configuration.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace nphost {

struct HttpSettings {
    bool isOn = false; // the file has the table
    std::vector<std::string> listen;
    std::optional<std::uint64_t> threads;
    std::filesystem::path certificate; // empty: not configured; so the next four
    std::filesystem::path key;
    std::filesystem::path clientAuthorities;
    std::filesystem::path tokens;
    std::filesystem::path accessLog;
    std::filesystem::path module; // of the front; empty: as installed or built
    std::vector<std::string> clientScopes = {"lookup"};
    std::vector<std::string> allowOrigins;
    std::uint64_t maxConnections = 4096;
    std::uint64_t maxConnectionsPerAddress = 256;
    std::uint64_t idleSeconds = 60;
    std::uint64_t cacheSeconds = 60;
    std::uint64_t maxDeltaMiB = 64;
    bool logNumbers = false;

    bool hasTls() const { return !certificate.empty(); }
    bool hasAuthentication() const { return !tokens.empty() || !clientAuthorities.empty(); }

    static void declare(Section& http, Configuration& configuration);
};

} // namespace nphost
