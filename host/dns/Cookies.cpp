#include "host/dns/Cookies.h"

#include <bit>
#include <cerrno>
#include <cstring>
#include <sys/random.h>
#include <system_error>

namespace nphost {

namespace {

constexpr std::uint32_t goodSeconds = 3600;
constexpr std::uint32_t futureSeconds = 300; // of other servers' clocks
constexpr char versionCM = 1;

std::uint64_t littleEndian(char const* bytes, std::size_t count) {
    std::uint64_t word = 0;
    for (std::size_t i = 0; i < count; ++i)
        word |= std::uint64_t{static_cast<unsigned char>(bytes[i])} << 8 * i;
    return word;
}

struct SipState {
    std::uint64_t v0, v1, v2, v3;

    void round() {
        v0 += v1;
        v1 = std::rotl(v1, 13) ^ v0;
        v0 = std::rotl(v0, 32);
        v2 += v3;
        v3 = std::rotl(v3, 16) ^ v2;
        v0 += v3;
        v3 = std::rotl(v3, 21) ^ v0;
        v2 += v1;
        v1 = std::rotl(v1, 17) ^ v2;
        v2 = std::rotl(v2, 32);
    }
    void take(std::uint64_t word) {
        v3 ^= word;
        round();
        round();
        v0 ^= word;
    }
};

std::uint32_t timeOf(std::string_view option) {
    std::uint32_t time = 0;
    for (char const byte : option.substr(12, 4))
        time = time << 8 | static_cast<unsigned char>(byte);
    return time;
}

} // namespace

std::uint64_t sipHash24(std::array<unsigned char, 16> const& key, std::string_view text) {
    char bytes[16];
    std::memcpy(bytes, key.data(), sizeof bytes);
    std::uint64_t const k0 = littleEndian(bytes, 8);
    std::uint64_t const k1 = littleEndian(bytes + 8, 8);
    SipState state{k0 ^ 0x736f6d6570736575, k1 ^ 0x646f72616e646f6d, k0 ^ 0x6c7967656e657261, k1 ^ 0x7465646279746573};
    std::uint64_t const length = text.size();
    for (; text.size() >= 8; text.remove_prefix(8))
        state.take(littleEndian(text.data(), 8));
    state.take(littleEndian(text.data(), text.size()) | length << 56);
    state.v2 ^= 0xff;
    for (int i = 0; i < 4; ++i)
        state.round();
    return state.v0 ^ state.v1 ^ state.v2 ^ state.v3;
}

DnsCookies DnsCookies::random() {
    Secret secret;
    for (ssize_t got = 0; got != static_cast<ssize_t>(secret.size());) {
        got = getrandom(secret.data(), secret.size(), 0);
        if (got < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "no random bytes");
    }
    return DnsCookies(secret);
}

DnsCookies::Whole DnsCookies::make(std::string_view option, DnsClient const& client, std::uint32_t now) const {
    char text[wholeBytesCM - 8 + sizeof client.address]; // what is digested: all before the digest, and the address
    std::memcpy(text, option.data(), clientBytesCM);
    char const head[8] = {versionCM,
                          0,
                          0,
                          0,
                          static_cast<char>(now >> 24),
                          static_cast<char>(now >> 16),
                          static_cast<char>(now >> 8),
                          static_cast<char>(now)};
    std::memcpy(text + clientBytesCM, head, sizeof head);
    std::memcpy(text + 16, client.address.data(), client.bytes);
    std::uint64_t const digest = sipHash24(secretM, {text, std::size_t{16} + client.bytes});
    Whole whole;
    std::memcpy(whole.data(), text, 16);
    for (unsigned i = 0; i < 8; ++i)
        whole[16 + i] = static_cast<char>(digest >> 8 * i);
    return whole;
}

bool DnsCookies::isGood(std::string_view option, DnsClient const& client, std::uint32_t now) const {
    if (option.size() != wholeBytesCM)
        return false;
    std::uint32_t const time = timeOf(option);
    // By the difference, which wraps as the time does.
    if (std::uint32_t const age = now - time; age > goodSeconds && time - now > futureSeconds)
        return false;
    Whole const own = make(option, client, time);
    unsigned differs = 0; // without an early end, which would tell how much was right
    for (std::size_t i = 0; i < wholeBytesCM; ++i)
        differs |= static_cast<unsigned char>(own[i]) ^ static_cast<unsigned char>(option[i]);
    return differs == 0;
}

} // namespace nphost
