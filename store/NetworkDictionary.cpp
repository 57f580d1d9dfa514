#include "store/NetworkDictionary.h"

#include <functional>
#include <string_view>

namespace DAT::NumberPortability {

namespace {

constexpr std::size_t firstSlots = 512;
constexpr std::size_t slotsANetwork = 8; // or more, so that nearly every search ends at its first slot

// Multiplication spreads the eight bytes of a short text well enough; its upper half is the better one.
std::size_t hashOf(BAS::SimpleString const& network) {
    if (!network.isShort())
        return std::hash<std::string_view>()(network.view());
    return static_cast<std::size_t>((network.shortText() * 0x9e3779b97f4a7c15U) >> 32);
}

bool isSame(BAS::SimpleString const& left, BAS::SimpleString const& right) {
    if (left.isShort() && right.isShort())
        return left.shortText() == right.shortText();
    return left == right;
}

} // namespace

// The slot that holds the network, or the empty one where it belongs.
std::size_t NetworkDictionary::slotOf(BAS::SimpleString const& network) const {
    std::size_t const mask = slotsM.size() - 1;
    std::size_t slot = hashOf(network) & mask;
    while (slotsM[slot] != 0 && !isSame(networksM[slotsM[slot] - 1], network))
        slot = (slot + 1) & mask;
    return slot;
}

std::uint32_t NetworkDictionary::numberOf(BAS::SimpleString const& network) {
    if (networksM.size() * slotsANetwork >= slotsM.size())
        grow();
    std::size_t const slot = slotOf(network);
    if (slotsM[slot] != 0)
        return slotsM[slot] - 1;
    if (networksM.size() == mostCM)
        return noneCM;
    networksM.push_back(network);
    slotsM[slot] = static_cast<std::uint32_t>(networksM.size());
    return slotsM[slot] - 1;
}

void NetworkDictionary::grow() {
    std::vector<std::uint32_t> slots(slotsM.empty() ? firstSlots : slotsM.size() * 2);
    slotsM.swap(slots);
    for (std::uint32_t i = 0; i < networksM.size(); ++i)
        slotsM[slotOf(networksM[i])] = i + 1;
}

void NetworkDictionary::clear() noexcept {
    networksM = std::vector<BAS::SimpleString>(); // not {}, which would keep the memory
    slotsM = std::vector<std::uint32_t>();
}

std::size_t NetworkDictionary::bytes() const {
    return networksM.capacity() * sizeof(BAS::SimpleString) + slotsM.capacity() * sizeof(std::uint32_t);
}

} // namespace DAT::NumberPortability
