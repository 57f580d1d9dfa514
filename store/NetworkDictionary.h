// DAT::NumberPortability::NetworkDictionary: the network identifiers of one data set, numbered.
//
// Purpose: a country has some hundred networks and millions of records, so a record is kept with the number of its
// identifier in place of the text.
// Units and ranges: numbers from 0 upward in the order of arrival, below mostCM. noneCM stands for an identifier that
// has none, because there were too many before it.
// Ownership: owns the texts. A text stays valid until the next numberOf or clear.
// Threads: none inside; concurrent const use is safe.
// Errors: numberOf throws std::bad_alloc and leaves the dictionary as it was.
// Complexity: constant on average, linear in the text.
#pragma once

#include "framework/BAS/SimpleString.h"

#include <cstdint>
#include <vector>

namespace DAT::NumberPortability {

class NetworkDictionary {
  public:
    static constexpr std::uint32_t mostCM = 65536;
    static constexpr std::uint32_t noneCM = mostCM;

    // The identifier's number; a new identifier gets the next one.
    std::uint32_t numberOf(BAS::SimpleString const& network);

    BAS::SimpleString const& operator[](std::uint32_t number) const { return networksM[number]; }

    void clear() noexcept;
    std::size_t bytes() const;

  private:
    std::size_t slotOf(BAS::SimpleString const& network) const;
    void grow();

    std::vector<BAS::SimpleString> networksM;
    std::vector<std::uint32_t> slotsM; // number + 1 by hash, 0 is empty; a power of two, mostly empty
};

} // namespace DAT::NumberPortability
