#include "host/dns/ResponseRates.h"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <sys/random.h>
#include <system_error>

namespace nphost {

namespace {

constexpr std::int64_t secondCM = 1'000'000'000;
constexpr std::size_t bytesOfNetwork4CM = 3;
constexpr std::size_t bytesOfNetwork6CM = 7;

} // namespace

ResponseRates::ResponseRates(std::uint64_t mostPerSecond)
    : intervalM(mostPerSecond == 0 ? 0 : secondCM / static_cast<std::int64_t>(mostPerSecond)),
      usedUntilM(mostPerSecond == 0 ? 0 : placesCM) {
    // Nobody outside must know who shares a place.
    if (getrandom(keyM.data(), keyM.size(), 0) != static_cast<ssize_t>(keyM.size()))
        throw std::system_error(errno, std::generic_category(), "no random bytes");
}

bool ResponseRates::isOver(DnsClient const& client, std::chrono::nanoseconds now) noexcept {
    if (intervalM == 0)
        return false;
    std::atomic<std::int64_t>& place = usedUntilM[placeOf(client)];
    std::int64_t before = place.load(std::memory_order_relaxed);
    for (;;) {
        std::int64_t const begin = std::max(before, static_cast<std::int64_t>(now.count()));
        if (begin - now.count() > secondCM - intervalM)
            return true;
        if (place.compare_exchange_weak(before, begin + intervalM, std::memory_order_relaxed))
            return false;
    }
}

std::size_t ResponseRates::placeOf(DnsClient const& client) const noexcept {
    std::array<char, 8> network{};
    std::size_t const bytes =
        client.bytes == 4 ? bytesOfNetwork4CM : std::min<std::size_t>(client.bytes, bytesOfNetwork6CM);
    std::copy_n(client.address.begin(), bytes, network.begin());
    network[7] = static_cast<char>(client.bytes);
    return sipHash24(keyM, std::string_view(network.data(), network.size())) % placesCM;
}

} // namespace nphost
