// nphost::Explanation: why a number belongs to a network, and when that will change.
//
// Purpose: from the stored prefixes of a number, longest first, with their histories, newest record first: which record
// each search method chooses at an instant and why, the first later instant at which a method chooses another one, and
// the number's range (store/LookUpDetail.h says what that is, and what is ported).
// Ownership: borrows prefixes and number; the choices refer to them.
// Threads: no state.
// Errors: std::bad_alloc.
// Complexity: a choice needs a binary search for each prefix; the next change one choice for each later instant at
// which any record begins, until the choice changes.
#pragma once

#include "cache/ServiceStatus.h"

#include <optional>
#include <string>
#include <vector>

namespace nphost {

class Explanation {
  public:
    using Prefixes = std::vector<DAT::NumberPortability::StoredPrefix>;
    using Record = DAT::NumberPortability::NumberPortabilityData;

    struct Choice {
        DAT::NumberPortability::StoredPrefix const* prefix = nullptr;
        Record const* record = nullptr; // null: nothing is found
        bool operator==(Choice const&) const = default;
    };
    struct Change {
        BAS::DateTime at;
        Choice choice;
    };

    Explanation(Prefixes const& prefixes, BAS::String const& number);

    Choice choose(unsigned int method, BAS::DateTime at) const;
    std::string reason(unsigned int method, BAS::DateTime at) const;
    std::optional<Change> nextChange(unsigned int method, BAS::DateTime after) const;
    Choice range(BAS::DateTime at) const;
    std::optional<bool> ported(unsigned int method, BAS::DateTime at) const;

  private:
    Prefixes::const_iterator firstAsked(unsigned int method) const;
    std::string bestReason(Choice const& choice) const;

    Prefixes const& prefixesM;
    std::string digitsM; // what a look-up sees of the number
};

} // namespace nphost
