// nphost::SortedRecord: a record of a data file in a form that is quickly sorted, and where such records come from.
//
// Purpose: what RecordSorter takes and gives.
// Order: by the digits of the number, lexicographically, a number before its extensions; then newest first; then by
// line. It is that of a listing.
// Ownership: borrows its texts.
// Threads: no state; a source by one thread at a time.
// Errors: none of the record; those of a source are its own.
// Complexity: a comparison is one of words, for longer numbers also linear in their rest.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace nphost {

struct SortedRecord {
    std::uint64_t head = 0;    // the first sixteen digits, headOf
    std::uint64_t seconds = 0; // of the valid-from
    std::uint64_t line = 0;
    std::uint32_t network = 0; // as NetworkNames has it
    std::string_view tail;     // the digits after the sixteenth
    std::string_view text;     // the name of a network without a number
};

// Up to sixteen digits in one word: four bits each, the digit and 1, the first highest, the rest 0. Words compare as
// the digits do.
constexpr std::size_t headDigitsCM = 16;
std::uint64_t headOf(std::string_view digits) noexcept;
void appendHead(std::string& digits, std::uint64_t head);

// Below 0, 0 or above: the number of the one comes before, is or comes after that of the other.
inline int compareNumbers(SortedRecord const& one, SortedRecord const& other) {
    if (one.head != other.head)
        return one.head < other.head ? -1 : 1;
    return one.tail.compare(other.tail);
}

inline bool isBefore(SortedRecord const& one, SortedRecord const& other) {
    int const order = compareNumbers(one, other);
    if (order != 0)
        return order < 0;
    return one.seconds != other.seconds ? one.seconds > other.seconds : one.line < other.line;
}

class RecordSource {
  public:
    RecordSource() = default;
    RecordSource(RecordSource const&) = delete;
    RecordSource& operator=(RecordSource const&) = delete;
    virtual ~RecordSource() = default;

    // False at the end.
    virtual bool next(SortedRecord& record) = 0;
};

} // namespace nphost
