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

    // The positions from 0 of number, valid-from and network among `count` columns, all different; `header` is empty
    // where the feed has none.
    std::vector<std::size_t> positions(std::vector<std::string> const& header, std::size_t count,
                                       std::string const& file) const;

  private:
    std::size_t position(Field field, std::vector<std::string> const& header, std::size_t count,
                         std::string const& file) const;

    std::array<std::string, fieldsCM> columnsM;
};

} // namespace nphost
