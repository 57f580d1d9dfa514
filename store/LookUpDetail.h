// DAT::NumberPortability::LookUpDetail: what a look-up finds, and what there is to know around it.
//
// Purpose: the answer of a look-up that is shown to people or kept by a cache: which stored key the record is from, until
// when the answer stays as it is, and whether the number has left the network of its range.
// Units and ranges: lengths are digits of stored keys, which are beginnings of the number's own; instants are of the
// data's clock.
// Ownership: a value that owns its texts; filled in anew, it uses their storage again.
// Threads: none inside. Errors: copying throws std::bad_alloc. Complexity: linear in the networks' texts.
#pragma once

#include "store/NumberPortabilityData.h"

#include <cstdint>
#include <optional>

namespace DAT::NumberPortability {

struct LookUpDetail {
    NumberPortabilityData record; // what the look-up finds; means nothing when it finds none
    // The best match among the keys that are shorter than the number, by whatever method the look-up is; means nothing
    // when there is none. Where the best match of all is such a key, this is the same record.
    NumberPortabilityData range;
    BAS::DateTime nextChange;       // when the look-up will first find another record than now; invalid: never
    BAS::DateTime rangeChange;      // when the range will first be another record; invalid: never
    std::uint32_t prefixDigits = 0; // of the key whose record was found; 0: nothing is found
    std::uint32_t rangeDigits = 0;  // of the range's key; 0: there is none
    // Of what is not found, now or later: whether longer stored keys begin with the number. Means nothing otherwise.
    bool hasLonger = false;
    std::uint64_t epoch = 0; // which data were asked: those that were put to work as the how-manieth

    bool found() const { return prefixDigits != 0; }
    bool hasRange() const { return rangeDigits != 0; }

    // Whether the number belongs to another network than its range does. Not known without either, nor from a record of
    // a still shorter key, which the shortest match gives: that says nothing of the number itself.
    std::optional<bool> ported() const {
        if (!hasRange() || prefixDigits < rangeDigits)
            return std::nullopt;
        return !(record.networkIdM == range.networkIdM);
    }
};

} // namespace DAT::NumberPortability
