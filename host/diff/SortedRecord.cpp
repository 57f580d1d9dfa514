#include "host/diff/SortedRecord.h"

#include <algorithm>

namespace nphost {

std::uint64_t headOf(std::string_view digits) noexcept {
    std::uint64_t head = 0;
    std::size_t const count = std::min(digits.size(), headDigitsCM);
    for (std::size_t i = 0; i < count; ++i)
        // One more than the digit: where there is none is 0, which puts a number before its extensions.
        head |= static_cast<std::uint64_t>(digits[i] - '0' + 1) << (60 - 4 * i);
    return head;
}

void appendHead(std::string& digits, std::uint64_t head) {
    for (; head != 0; head <<= 4)
        digits += static_cast<char>('0' + (head >> 60) - 1);
}

} // namespace nphost
