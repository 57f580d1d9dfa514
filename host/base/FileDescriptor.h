// nphost::FileDescriptor: an open descriptor that closes with its object.
//
// Purpose: sockets, pipes and files of the daemon and its client.
// Ownership: owns the descriptor; -1 is none.
// Threads: none inside.
// Errors: none; what a close reports is lost.
// Complexity: constant.
#pragma once

#include <unistd.h>
#include <utility>

namespace nphost {

class FileDescriptor {
  public:
    FileDescriptor() noexcept = default;
    explicit FileDescriptor(int descriptor) noexcept : descriptorM(descriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept : descriptorM(std::exchange(other.descriptorM, -1)) {}
    // What this one had closes with `other`.
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(descriptorM, other.descriptorM);
        return *this;
    }
    ~FileDescriptor() { reset(); }

    int get() const noexcept { return descriptorM; }
    explicit operator bool() const noexcept { return descriptorM >= 0; }
    void reset() noexcept {
        if (descriptorM >= 0)
            ::close(descriptorM);
        descriptorM = -1;
    }

  private:
    int descriptorM = -1;
};

} // namespace nphost
