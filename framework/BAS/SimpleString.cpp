#include "framework/BAS/SimpleString.h"

#include <ostream>

namespace BAS {

// A pointer's highest byte is 0 in user space on x86-64. The tag stands in its place, where a short text has its NUL.
static_assert(sizeof(SimpleString) == 8 && sizeof(char*) == 8);

SimpleString::SimpleString(SimpleString const& other) {
    if (other.isHeap())
        store(other.view());
    else
        std::memcpy(bytesM, other.bytesM, sizeCM);
}

void SimpleString::assignHeap(SimpleString const& other) {
    // The memory that is there serves again where it suffices, and then nothing can fail.
    if (isHeap() && other.isHeap() && view().size() >= other.view().size()) {
        std::memcpy(heapText(), other.heapText(), other.view().size() + 1);
        return;
    }
    // The copy first: when memory lacks, this text stays.
    SimpleString copy(other);
    swap(copy);
}

void SimpleString::store(std::string_view text) {
    if (text.size() < sizeCM) {
        std::memcpy(bytesM, text.data(), text.size());
        return;
    }
    char* const copy = new char[text.size() + 1];
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    std::memcpy(bytesM, &copy, sizeCM);
    bytesM[sizeCM - 1] = heapTagCM;
}

std::ostream& operator<<(std::ostream& out, SimpleString const& text) {
    return out << text.view();
}

} // namespace BAS
