// nphost::DnsCookies: cookies by which a server knows that an asker's address is its own.
//
// Purpose: who has once got an answer at an address gives back the cookie that came with it, and is then trusted to be
// there. A server cookie is a keyed digest of the address, the asker's cookie and the time, in the form in which servers
// of several makers agree, so that those that share a secret take one another's.
// Units and ranges: time in seconds since 1970, in 32 bits that wrap around; a cookie is good for an hour.
// Ownership: a value. Threads: constant. Errors: random throws std::system_error. Complexity: constant.
// Source: RFC 7873; RFC 9018 (version 1: SipHash-2-4).
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace nphost {

struct DnsClient {
    std::array<unsigned char, 16> address{};
    std::uint8_t bytes = 0; // of it: 4, 16, or 0 when there is none, as on a UNIX socket
};

std::uint64_t sipHash24(std::array<unsigned char, 16> const& key, std::string_view text);

class DnsCookies {
  public:
    using Secret = std::array<unsigned char, 16>;
    static constexpr std::size_t clientBytesCM = 8;
    static constexpr std::size_t wholeBytesCM = 24; // the asker's and the server's
    using Whole = std::array<char, wholeBytesCM>;

    explicit DnsCookies(Secret const& secret) : secretM(secret) {}
    static DnsCookies random();

    // Whether the option holds a server cookie of ours that is still good.
    bool isGood(std::string_view option, DnsClient const& client, std::uint32_t now) const;
    // A fresh one for an option that begins with the asker's cookie.
    Whole make(std::string_view option, DnsClient const& client, std::uint32_t now) const;

  private:
    Secret secretM;
};

} // namespace nphost
