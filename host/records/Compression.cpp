#include "host/records/Compression.h"

#include "host/base/HostError.h"

#include <limits>
#include <new>
#define ZLIB_CONST // what is only read is const
#include <zlib.h>
#include <zstd.h>

namespace nphost {

namespace {

constexpr std::string_view gzipSuffixCM = ".gz";
constexpr std::string_view zstdSuffixCM = ".zst";

} // namespace

Compression compressionOfContent(std::string_view beginning) noexcept {
    if (beginning.starts_with("\x1f\x8b"))
        return Compression::GZIP;
    if (beginning.starts_with("\x28\xb5\x2f\xfd"))
        return Compression::ZSTD;
    bool const skippable = beginning.size() >= magicBytesCM && (static_cast<unsigned char>(beginning[0]) >> 4U) == 5 &&
                           beginning.substr(1, 3) == "\x2a\x4d\x18"; // a zstd frame of somebody's own before the data
    return skippable ? Compression::ZSTD : Compression::NONE;
}

Compression compressionOfName(std::string_view name) noexcept {
    if (name.ends_with(gzipSuffixCM))
        return Compression::GZIP;
    return name.ends_with(zstdSuffixCM) ? Compression::ZSTD : Compression::NONE;
}

std::string_view withoutSuffix(std::string_view name) noexcept {
    for (std::string_view const suffix : {gzipSuffixCM, zstdSuffixCM})
        if (name.ends_with(suffix))
            name.remove_suffix(suffix.size());
    return name;
}

// Working memory of a method is some hundred kilobytes: a compressor makes it once, and begins anew for each text.
class Compressor::Method {
  public:
    Method() = default;
    Method(Method const&) = delete;
    Method& operator=(Method const&) = delete;
    virtual ~Method() = default;

    virtual std::size_t bound(std::size_t length) = 0;
    // Writes to `out`, which has the bound's length; returns how much was written.
    virtual std::size_t compress(std::string_view text, std::string& out) = 0;
};

class Compressor::Gzip : public Method {
  public:
    Gzip() {
        constexpr int gzipWrapper = 16 + MAX_WBITS; // 16: gzip's wrapper and not zlib's
        constexpr int memoryLevel = 8;              // the library's own default
        if (deflateInit2(&streamM, Z_DEFAULT_COMPRESSION, Z_DEFLATED, gzipWrapper, memoryLevel, Z_DEFAULT_STRATEGY) !=
            Z_OK)
            throw std::bad_alloc();
    }
    Gzip(Gzip const&) = delete;
    Gzip& operator=(Gzip const&) = delete;
    ~Gzip() override { deflateEnd(&streamM); }

    std::size_t bound(std::size_t length) override { return deflateBound(&streamM, length); }

    std::size_t compress(std::string_view text, std::string& out) override {
        // zlib counts in 32 bits; what is compressed at once is far below that.
        if (out.size() > std::numeric_limits<uInt>::max())
            throw HostError("a block is too large for gzip");
        streamM.next_in = reinterpret_cast<Bytef const*>(text.data());
        streamM.avail_in = static_cast<uInt>(text.size());
        streamM.next_out = reinterpret_cast<Bytef*>(out.data());
        streamM.avail_out = static_cast<uInt>(out.size());
        // The bound leaves room for everything, so one call ends the member.
        bool const whole = deflate(&streamM, Z_FINISH) == Z_STREAM_END;
        std::size_t const written = out.size() - streamM.avail_out;
        deflateReset(&streamM); // now: until then the bound would lack the wrapper
        if (!whole)
            throw HostError("gzip cannot compress a block");
        return written;
    }

  private:
    z_stream streamM{};
};

class Compressor::Zstd : public Method {
  public:
    Zstd() : contextM(ZSTD_createCCtx()) {
        if (contextM == nullptr)
            throw std::bad_alloc();
        // So that damage is found; gzip has a checksum of its own.
        ZSTD_CCtx_setParameter(contextM, ZSTD_c_checksumFlag, 1);
    }
    Zstd(Zstd const&) = delete;
    Zstd& operator=(Zstd const&) = delete;
    ~Zstd() override { ZSTD_freeCCtx(contextM); }

    std::size_t bound(std::size_t length) override { return ZSTD_compressBound(length); }

    std::size_t compress(std::string_view text, std::string& out) override {
        // Each call makes a frame of its own; the parameters stay from one to the next.
        std::size_t const written = ZSTD_compress2(contextM, out.data(), out.size(), text.data(), text.size());
        if (ZSTD_isError(written) != 0)
            throw HostError(std::string("zstd cannot compress a block: ") + ZSTD_getErrorName(written));
        return written;
    }

  private:
    ZSTD_CCtx* contextM;
};

Compressor::Compressor(Compression kind) {
    if (kind == Compression::GZIP)
        methodM = std::make_unique<Gzip>();
    else if (kind == Compression::ZSTD)
        methodM = std::make_unique<Zstd>();
}

Compressor::~Compressor() = default;

std::string_view Compressor::compress(std::string_view text, std::string& place) {
    // Without compression the text itself is the result: nothing is copied.
    if (methodM == nullptr)
        return text;
    std::size_t const bound = methodM->bound(text.size());
    if (place.size() < bound)
        // Only ever longer: a worker's place serves all its blocks.
        place.resize(bound);
    return std::string_view(place).substr(0, methodM->compress(text, place));
}

} // namespace nphost
