// Look-ups to make against a generated data set, prepared beforehand.
//
// Four of five ask at an instant in 2024, after every record; one of five at a historical instant. For a hit that is
// one at which an older record of the number holds or, equally likely, only the block prefix does; for the other kinds
// one in 1995, when only block prefixes have a record.
// Ownership: values. Threads: constant once made. Errors: std::bad_alloc. Complexity: linear.
#pragma once

#include "bench/PortabilityData.h"

#include <cstddef>
#include <vector>

namespace npbench {

enum class QueryKind {
    HIT,       // a stored number, each equally likely
    FALL_BACK, // not stored, in an allocated range: the block prefix answers (in the shape `lengths` a shorter number may)
    MISS,      // in no allocated range
    ZIPF_HIT // a stored number, the k-th of a random ranking about 1/k as likely as the first (s = 1)
};

struct Queries {
    std::vector<BAS::String> numbers;
    std::vector<BAS::DateTime> instants;

    std::size_t size() const { return numbers.size(); }
};

Queries makeQueries(PortabilityData const& data, QueryKind kind, std::size_t count);

// Whether every look-up of the kind finds a record; else none does.
inline bool isFound(QueryKind kind) {
    return kind != QueryKind::MISS;
}

} // namespace npbench
