// BAS::SimpleString: a plain owning, NUL-terminated text in eight bytes.
//
// Purpose: the network identifier of a record. Millions of them are held at once, so a text of up to seven
// characters lies in the object itself; a longer one has one heap block of its own.
// Layout: the last byte tells which. 0 ends an inline text of seven characters or less; heapTagCM marks a pointer
// to a heap text in the other seven bytes (addresses of this platform, x86-64, leave the top byte unused).
// Ownership: owns its text. c_str() stays valid until the object changes, moves or ends.
// Threads: none inside; concurrent const use is safe.
// Errors: throws std::bad_alloc when memory for a longer text runs out; a failed assignment changes nothing.
// Complexity: linear in the text's length; an inline text is copied as one word. Assigning a longer text to one that
// is as long allocates nothing.
// The tag hides heap texts from the leak sanitizer: it takes what only such a pointer keeps alive for lost.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <string_view>

namespace BAS {

class SimpleString {
  public:
    SimpleString() noexcept = default;
    explicit SimpleString(char const* text) { store(text); } // up to the first NUL; not null
    // Up to the first NUL, if there is one; nothing beyond the view is read.
    explicit SimpleString(std::string_view text) {
        if (text.size() < sizeCM)
            storeWord(wordOf(text));
        else
            store(text.substr(0, text.find('\0')));
    }
    SimpleString(SimpleString const& other);
    SimpleString(SimpleString&& other) noexcept { swap(other); }
    SimpleString& operator=(SimpleString const& other) {
        if (this == &other)
            return *this;
        if (!isHeap() && !other.isHeap())
            std::memcpy(bytesM, other.bytesM, sizeCM);
        else
            assignHeap(other);
        return *this;
    }
    SimpleString& operator=(SimpleString&& other) noexcept {
        swap(other);
        return *this;
    }
    ~SimpleString() {
        if (isHeap())
            delete[] heapText();
    }

    char const* c_str() const noexcept { return isHeap() ? heapText() : bytesM; }
    std::string_view view() const noexcept {
        if (isHeap())
            return heapText();
        return {bytesM, sizeCM - static_cast<unsigned>(std::countl_zero(shortText())) / 8};
    }
    // Up to seven characters, which then lie in the object itself: shortText() is them, the rest 0. Equal short texts
    // have equal words.
    bool isShort() const noexcept { return !isHeap(); }
    std::uint64_t shortText() const noexcept {
        std::uint64_t word = 0;
        std::memcpy(&word, bytesM, sizeCM);
        return word;
    }
    bool operator==(SimpleString const& other) const noexcept { return view() == other.view(); }

  private:
    static constexpr std::size_t sizeCM = 8;
    static constexpr char heapTagCM = '\x7f';

    bool isHeap() const noexcept { return bytesM[sizeCM - 1] == heapTagCM; }
    char* heapText() const noexcept {
        char address[sizeCM];
        std::memcpy(address, bytesM, sizeCM - 1);
        address[sizeCM - 1] = 0;
        char* text = nullptr;
        std::memcpy(&text, address, sizeCM);
        return text;
    }
    // The first seven characters or less as one word, the first in the lowest byte, zero bytes after them.
    static std::uint64_t wordOf(std::string_view text) noexcept {
        std::uint64_t word = 0;
        if (text.size() >= 4) { // the first four and the last four, which may overlap
            std::uint32_t first = 0, last = 0;
            std::memcpy(&first, text.data(), 4);
            std::memcpy(&last, text.data() + text.size() - 4, 4);
            word = first | static_cast<std::uint64_t>(last) << 8 * (text.size() - 4);
        } else {
            for (std::size_t i = 0; i < text.size(); ++i)
                word |= static_cast<std::uint64_t>(static_cast<unsigned char>(text[i])) << 8 * i;
        }
        return word;
    }
    // Keeps what is before the first zero byte of the word, which has one.
    void storeWord(std::uint64_t word) noexcept {
        std::uint64_t const zeros = (word - 0x0101010101010101) & ~word & 0x8080808080808080; // the lowest one is exact
        word &= (zeros & -zeros) - 1;
        std::memcpy(bytesM, &word, sizeCM);
    }
    void store(std::string_view text); // without NUL
    void assignHeap(SimpleString const& other);
    void swap(SimpleString& other) noexcept {
        char mine[sizeCM];
        std::memcpy(mine, bytesM, sizeCM);
        std::memcpy(bytesM, other.bytesM, sizeCM);
        std::memcpy(other.bytesM, mine, sizeCM);
    }

    alignas(8) char bytesM[sizeCM] = {};
};

std::ostream& operator<<(std::ostream& out, SimpleString const& text);

} // namespace BAS
