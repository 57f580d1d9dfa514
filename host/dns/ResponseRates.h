// nphost::ResponseRates: how many answers go to one network in a second.
//
// Purpose: who forges addresses of others must not have answers sent there at will. Each network of addresses (/24 of
// IPv4, /56 of IPv6) may have so many answers a second, and as many at once after a pause; beyond that, none but those
// that tell it to ask otherwise. Networks share a fixed number of places by a keyed digest: two may have one place, and
// then its allowance together.
// Units and ranges: answers a second, 1 to a million; instants in nanoseconds of any clock that does not go back.
// Ownership: owns its places, half a MiB, whoever asks.
// Threads: any. Errors: construction throws std::bad_alloc, std::system_error.
// Complexity: constant, without a lock.
#pragma once

#include "host/dns/Cookies.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <vector>

namespace nphost {

class ResponseRates {
  public:
    explicit ResponseRates(std::uint64_t mostPerSecond); // 0: no limit

    // Whether the client's network has had its share already. If not, one answer more is counted.
    bool isOver(DnsClient const& client, std::chrono::nanoseconds now) noexcept;

  private:
    static constexpr std::size_t placesCM = 65536;

    std::size_t placeOf(DnsClient const& client) const noexcept;

    std::array<unsigned char, 16> keyM{};
    std::int64_t const intervalM; // nanoseconds between two answers; 0: no limit
    // When all that a place was given is used up at the permitted rate.
    std::vector<std::atomic<std::int64_t>> usedUntilM;
};

} // namespace nphost
