// nphost::Output: standard output in large pieces.
//
// Purpose: answers by the million without an allocation or a system call each.
// Ownership: borrows the descriptor, which stays open. Destruction discards what was not flushed: whoever wants it
// written flushes, and so learns of errors.
// Threads: one thread at a time.
// Errors: HostError with the system's reason when a write fails; Interrupted when nobody reads any more and SIGPIPE is
// ignored; construction throws std::bad_alloc.
// Complexity: linear in the bytes; one system call a buffer.
#pragma once

#include <cstring>
#include <string_view>
#include <vector>

namespace nphost {

class Output {
  public:
    explicit Output(int descriptor) : descriptorM(descriptor), bufferM(sizeCM) {}
    Output(Output const&) = delete;
    Output& operator=(Output const&) = delete;

    void append(char byte) {
        if (usedM == sizeCM)
            flush();
        bufferM[usedM++] = byte;
    }
    void append(std::string_view text) {
        if (text.size() > sizeCM - usedM)
            return appendLarge(text);
        std::memcpy(bufferM.data() + usedM, text.data(), text.size());
        usedM += text.size();
    }
    void flush();

  private:
    static constexpr std::size_t sizeCM = 256UL * 1024;

    void appendLarge(std::string_view text);
    void writeAll(std::string_view text) const;

    int descriptorM;
    std::vector<char> bufferM;
    std::size_t usedM = 0;
};

} // namespace nphost
