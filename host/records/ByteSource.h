// nphost::ByteSource: the bytes of a file, a pipe or standard input, decompressed where they are compressed.
//
// Purpose: reads gzip and zstd, recognised by the first bytes, as what was compressed; gzip members and zstd frames one
// after the other are read as one.
// Units: bytes. done() counts those of the file itself, compressed or not, of size(), which is 0 where it is unknown.
// Ownership: owns the descriptor, but for standard input's, and a buffer of 256 KiB.
// Waiting: opening never waits for whoever writes into a pipe, reading does, whether the descriptor blocks or not.
// Threads: one thread at a time; done() and size() are safe from any.
// Errors: HostError in one line that names the file: it cannot be opened or read, or what was compressed is damaged or
// ends early, as that of an empty file whose name says that it is compressed. std::bad_alloc.
// Complexity: linear in the bytes.
// Source: RFC 1952 (gzip), RFC 8878 (zstd).
#pragma once

#include "host/base/FileDescriptor.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace nphost {

class ByteSource {
  public:
    // "-" is standard input.
    explicit ByteSource(std::string const& name);
    ByteSource(ByteSource const&) = delete;
    ByteSource& operator=(ByteSource const&) = delete;
    ~ByteSource();

    // While it waits for somebody who writes, a read looks at this, and returns 0 when it has become true.
    void stopWhen(std::atomic<bool> const* stop) noexcept { stopM = stop; }

    // Fills up to `to.size()` bytes and says how many; 0 only at the end, and for an empty `to`.
    std::size_t read(std::span<char> to);

    // Whether the next read may have to wait for somebody who writes.
    bool mayWait() const noexcept;

    // As messages name it: "standard input" for "-".
    std::string const& name() const noexcept { return nameM; }
    std::uint64_t done() const noexcept { return doneM.load(std::memory_order_relaxed); }
    std::uint64_t size() const noexcept { return sizeM; }

  private:
    static constexpr std::size_t bufferSizeCM = 256UL * 1024;

    class Decoder;
    class Gzip;
    class Zstd;

    void recognise();
    bool fill();
    bool waitForInput() const;
    std::size_t readSome(std::span<char> to);
    std::size_t readPlain(std::span<char> to);
    std::size_t readDecoded(std::span<char> to);
    [[noreturn]] void fail(std::string const& reason) const;

    std::string nameM;
    FileDescriptor ownM; // none for standard input
    int descriptorM;
    std::uint64_t sizeM = 0;
    std::atomic<std::uint64_t> doneM{0};
    std::vector<char> bufferM;
    std::string_view rawM; // read from the file and not yet taken
    bool atEndM = false;
    std::atomic<bool> const* stopM = nullptr;
    std::unique_ptr<Decoder> decoderM; // null: not compressed
};

} // namespace nphost
