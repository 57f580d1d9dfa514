// DAT::NumberPortability::NumberPortabilityData: one portability record.
//
// Purpose: says that a number belongs to a network from an instant on, until the number's next later record. It is
// also the result of every look-up.
// Units and ranges: validFromM is inclusive: at exactly this instant the record holds. networkIdM is free text without
// white space, never interpreted.
// Ownership: a value of 16 bytes that owns its identifier's text.
// Threads: none inside; concurrent const use is safe.
// Errors: copying an identifier of more than seven characters throws std::bad_alloc when memory runs out; the record
// assigned to is then unchanged. Complexity: linear in the identifier.
#pragma once

#include "framework/BAS/DateTime.h"
#include "framework/BAS/SimpleString.h"

#include <ostream>

namespace DAT::NumberPortability {

class NumberPortabilityData {
  public:
    NumberPortabilityData() = default;
    NumberPortabilityData(BAS::DateTime const& validFrom, BAS::SimpleString const& networkId)
        : validFromM(validFrom), networkIdM(networkId) {}
    NumberPortabilityData(NumberPortabilityData const&) = default;
    NumberPortabilityData& operator=(NumberPortabilityData const& other) {
        if (this != &other) {
            networkIdM = other.networkIdM; // the one that can fail comes first
            validFromM = other.validFromM;
        }
        return *this;
    }
    NumberPortabilityData(NumberPortabilityData&&) noexcept = default;
    NumberPortabilityData& operator=(NumberPortabilityData&&) noexcept = default;
    ~NumberPortabilityData() = default;

    BAS::DateTime validFromM;
    BAS::SimpleString networkIdM;
};

// "(valid-from networkId)", without a line end.
inline std::ostream& operator<<(std::ostream& out, NumberPortabilityData const& record) {
    return out << '(' << record.validFromM << ' ' << record.networkIdM << ')';
}

} // namespace DAT::NumberPortability
