#include "host/import/SeenRecords.h"

#include <stdexcept>

namespace nphost {

namespace {

constexpr std::size_t packedLengthCM = 17; // 12^17 < 2^64

} // namespace

// In base 12, without a zero, so that each text has its own number; 0 for a text that has none.
std::uint64_t SeenRecords::packed(std::string_view number) {
    if (number.size() > packedLengthCM)
        return 0;
    std::uint64_t value = 0;
    for (char const c : number) {
        if (c != '+' && (c < '0' || c > '9'))
            return 0;
        value = value * 12 + (c == '+' ? 11U : static_cast<unsigned>(c - '0') + 1U);
    }
    return value;
}

std::optional<std::uint32_t> SeenRecords::insert(std::string_view number, BAS::DateTime at, std::uint32_t network) {
    if (network >> networkBitsCM != 0)
        throw std::length_error("too many networks");
    std::uint64_t const key = packed(number);
    if (key == 0) {
        // Rare: hardly any number is longer.
        auto const [found, isNew] = othersM.emplace(std::pair(std::string(number), at.seconds()), network);
        return isNew ? std::nullopt : std::optional(found->second);
    }
    // Equal are number and instant; the network only goes along in the bits below.
    auto const [found, isNew] = packedM.insert({key, at.seconds() << networkBitsCM | network});
    constexpr std::uint64_t networkMask = (std::uint64_t(1) << networkBitsCM) - 1;
    return isNew ? std::nullopt : std::optional(static_cast<std::uint32_t>(found->atAndNetwork & networkMask));
}

} // namespace nphost
