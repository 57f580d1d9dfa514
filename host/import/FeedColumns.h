// nphost::FeedColumns: which columns of a feed are number, valid-from and network.
//
// Purpose: reads "number=COLUMN,valid-from=COLUMN,network=COLUMN" in any order, and finds the columns in a feed. A
// COLUMN is a name of the header, commas and all, or, where the header has no such name or there is none, a position
// from 1.
// Ownership: a value.
// Threads: none inside; concurrent const use is safe.
// Errors: HostError, in one line; std::bad_alloc.
// Complexity: linear in the columns.
#pragma once

#include "host/records/RecordInput.h"

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace nphost {

class FeedColumns {
  public:
    enum Field : std::size_t { NUMBER, VALID_FROM, NETWORK };
    static constexpr std::size_t fieldsCM = 3;
    static char const* nameOf(Field field);

    explicit FeedColumns(std::string_view map);

    // The positions from 0 of number, valid-from and network in the input, which was started; all different.
    std::vector<std::size_t> positions(RecordInput& input) const;

  private:
    std::array<std::string, fieldsCM> columnsM;
};

} // namespace nphost
