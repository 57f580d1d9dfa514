// nphost::Compression: compressed files by their content and their names, and compressing in pieces of their own.
//
// Purpose: what is read is recognised by its first bytes, whatever its name; what is written is compressed by the
// suffix of its name. A Compressor makes each text a complete gzip member or zstd frame of its own. Members one after
// the other are one compressed file, so many threads may compress parts of it.
// Ownership: a compressor owns its working memory, which it keeps from text to text.
// Threads: none inside; a compressor a thread.
// Errors: std::bad_alloc; HostError should the library fail otherwise.
// Complexity: linear in the text; gzip at about 30 MB a second and core, zstd at several hundred.
// Source: RFC 1952 (gzip: members, magic), RFC 8878 (zstd: frames, magic).
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace nphost {

enum class Compression { NONE, GZIP, ZSTD };

// What the bytes at the beginning of a file say; four suffice.
constexpr std::size_t magicBytesCM = 4;
Compression compressionOfContent(std::string_view beginning) noexcept;

// ".gz" and ".zst" at the end of a file's name.
Compression compressionOfName(std::string_view name) noexcept;

// The name without such a suffix.
std::string_view withoutSuffix(std::string_view name) noexcept;

class Compressor {
  public:
    explicit Compressor(Compression kind);
    Compressor(Compressor const&) = delete;
    Compressor& operator=(Compressor const&) = delete;
    ~Compressor();

    // The text as one member or frame, in `place`, which keeps its storage; or as it stands without compression.
    std::string_view compress(std::string_view text, std::string& place);

  private:
    class Method;
    class Gzip;
    class Zstd;

    std::unique_ptr<Method> methodM; // null: none
};

} // namespace nphost
