#include "host/records/ByteSource.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"
#include "host/base/Waiting.h"
#include "host/records/Compression.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/stat.h>
#include <system_error>
#define ZLIB_CONST // what is only read is const
#include <zlib.h>
#include <zstd.h>

namespace nphost {

// What the two libraries have in common here. A file may be of many members: one that ends is no end of the file.
class ByteSource::Decoder {
  public:
    Decoder() = default;
    Decoder(Decoder const&) = delete;
    Decoder& operator=(Decoder const&) = delete;
    virtual ~Decoder() = default;

    // Takes from `in`, writes to `out`, and leaves in both what remains. Null, or why that is impossible.
    virtual char const* step(std::string_view& in, std::span<char>& out) = 0;

    // Whether a member has begun and not ended.
    bool isOpen() const noexcept { return openM; }

  protected:
    void setOpen(bool open) noexcept { openM = open; }

  private:
    bool openM = false;
};

class ByteSource::Gzip : public Decoder {
  public:
    Gzip() {
        constexpr int gzipWrapper = 16 + MAX_WBITS;
        if (inflateInit2(&streamM, gzipWrapper) != Z_OK)
            throw std::bad_alloc();
    }
    Gzip(Gzip const&) = delete;
    Gzip& operator=(Gzip const&) = delete;
    ~Gzip() override { inflateEnd(&streamM); }

    char const* step(std::string_view& in, std::span<char>& out) override {
        // Zeros are looked for between members only: within one they are data, and a file does not begin with them.
        if (!isOpen() && begunM)
            skipPadding(in);
        if (!isOpen() && in.empty())
            return nullptr;
        if (isPaddedM)
            return "bytes follow the zeros behind them";
        if (!isOpen())
            inflateReset(&streamM);
        begunM = true;
        streamM.next_in = reinterpret_cast<Bytef const*>(in.data());
        streamM.avail_in = static_cast<uInt>(in.size()); // as long as the buffer at most
        streamM.next_out = reinterpret_cast<Bytef*>(out.data());
        streamM.avail_out = static_cast<uInt>(std::min<std::size_t>(out.size(), mostCM));
        std::size_t const room = streamM.avail_out;
        int const result = inflate(&streamM, Z_NO_FLUSH);
        in.remove_prefix(in.size() - streamM.avail_in);
        out = out.subspan(room - streamM.avail_out);
        setOpen(result != Z_STREAM_END);
        if (result == Z_MEM_ERROR)
            throw std::bad_alloc();
        // Z_BUF_ERROR says that there was no room or no input, and is no error: the next step brings what lacks.
        bool const fine = result == Z_OK || result == Z_STREAM_END || result == Z_BUF_ERROR;
        return fine ? nullptr : streamM.msg != nullptr ? streamM.msg : "unknown error";
    }

  private:
    static constexpr std::size_t mostCM = 1UL << 30U;

    // Tapes and block devices fill up with zeros, which gzip(1) passes over.
    void skipPadding(std::string_view& in) {
        std::size_t const zeros = std::min(in.find_first_not_of('\0'), in.size());
        isPaddedM = isPaddedM || zeros > 0;
        in.remove_prefix(zeros);
    }

    z_stream streamM{};
    bool begunM = false;    // a member has
    bool isPaddedM = false; // zeros stand behind the last one
};

class ByteSource::Zstd : public Decoder {
  public:
    Zstd() : streamM(ZSTD_createDStream()) {
        if (streamM == nullptr)
            throw std::bad_alloc();
    }
    Zstd(Zstd const&) = delete;
    Zstd& operator=(Zstd const&) = delete;
    ~Zstd() override { ZSTD_freeDStream(streamM); }

    char const* step(std::string_view& in, std::span<char>& out) override {
        if (!isOpen() && in.empty())
            return nullptr;
        ZSTD_inBuffer input = {in.data(), in.size(), 0};
        ZSTD_outBuffer output = {out.data(), out.size(), 0};
        std::size_t const result = ZSTD_decompressStream(streamM, &output, &input);
        in.remove_prefix(input.pos);
        out = out.subspan(output.pos);
        // The library's hint of what it wants next: 0 is the end of a frame.
        setOpen(result != 0);
        return ZSTD_isError(result) != 0 ? ZSTD_getErrorName(result) : nullptr;
    }

  private:
    ZSTD_DStream* streamM;
};

namespace {

// A pipe opens without its writer, for whom reading waits: there it can be told to stop.
int flagOf(std::string const& name) {
    struct stat status = {};
    return ::stat(name.c_str(), &status) == 0 && S_ISFIFO(status.st_mode) ? O_NONBLOCK : 0;
}

} // namespace

ByteSource::ByteSource(std::string const& name)
    : nameM(name == "-" ? "standard input" : visible(name)),
      ownM(name == "-" ? -1 : ::open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | flagOf(name))),
      descriptorM(name == "-" ? STDIN_FILENO : ownM.get()), bufferM(bufferSizeCM) {
    struct stat status = {};
    if (descriptorM < 0 || fstat(descriptorM, &status) != 0)
        fail("cannot be opened: " + std::system_category().message(errno));
    // A folder can be opened, and would fail only when it is read.
    if (S_ISDIR(status.st_mode))
        fail("cannot be read: " + std::system_category().message(EISDIR));
    if (S_ISREG(status.st_mode))
        sizeM = static_cast<std::uint64_t>(status.st_size);
}

ByteSource::~ByteSource() = default;

void ByteSource::fail(std::string const& reason) const {
    throw HostError(nameM + ": " + reason);
}

// False when it was told to stop before there was anything. A named pipe that has had no writer yet is not at its end:
// reading would say so, poll waits.
bool ByteSource::waitForInput() const {
    while (!becomesReady(descriptorM, POLLIN))
        if (stopM != nullptr && stopM->load(std::memory_order_relaxed))
            return false;
    return true;
}

std::size_t ByteSource::readSome(std::span<char> to) {
    for (;;) {
        // All but regular files of some length may wait for a writer, and then look whether to stop.
        if (sizeM == 0 && !waitForInput()) {
            atEndM = true;
            return 0;
        }
        ssize_t const count = ::read(descriptorM, to.data(), to.size());
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) // another reader of the pipe was faster
            continue;
        if (count < 0)
            fail("cannot be read: " + std::system_category().message(errno));
        atEndM = count == 0;
        doneM.store(done() + static_cast<std::uint64_t>(count), std::memory_order_relaxed);
        return static_cast<std::size_t>(count);
    }
}

// Adds to rawM, which lies in the buffer; false at the end of the file.
bool ByteSource::fill() {
    if (atEndM)
        return false;
    // What the decoder left goes to the front: the buffer is read on from behind it.
    std::memmove(bufferM.data(), rawM.data(), rawM.size());
    std::size_t const kept = rawM.size();
    std::size_t const count = readSome(std::span(bufferM).subspan(kept));
    rawM = std::string_view(bufferM.data(), kept + count);
    return count > 0;
}

// By content, because files come with any name; but see the empty one below, of which there is only the name.
void ByteSource::recognise() {
    rawM = std::string_view(bufferM.data(), bufferM.size()).substr(0, 0); // not null: recognised
    while (rawM.size() < magicBytesCM && fill()) {
    }
    // An empty file is no compressed one: whoever wrote it was cut short.
    if (rawM.empty() && compressionOfName(nameM) != Compression::NONE)
        fail("the compressed data end early: the file is empty");
    switch (compressionOfContent(rawM)) {
    case Compression::GZIP:
        decoderM = std::make_unique<Gzip>();
        break;
    case Compression::ZSTD:
        decoderM = std::make_unique<Zstd>();
        break;
    case Compression::NONE:
        break;
    }
}

std::size_t ByteSource::read(std::span<char> to) {
    if (to.empty())
        return 0;
    if (rawM.data() == nullptr)
        recognise();
    return decoderM == nullptr ? readPlain(to) : readDecoded(to);
}

// What was read to recognise the file comes first; then bytes go straight to their place.
std::size_t ByteSource::readPlain(std::span<char> to) {
    if (rawM.empty())
        return atEndM ? 0 : readSome(to);
    std::size_t const count = std::min(rawM.size(), to.size());
    std::memcpy(to.data(), rawM.data(), count);
    rawM.remove_prefix(count);
    return count;
}

std::size_t ByteSource::readDecoded(std::span<char> to) {
    for (std::span<char> out = to;;) {
        if (char const* const error = decoderM->step(rawM, out))
            fail(std::string("the compressed data are damaged: ") + error);
        // As soon as anything has come out: waiting to fill it could wait for somebody who writes.
        if (out.size() < to.size())
            return to.size() - out.size();
        if (!rawM.empty() || fill())
            continue;
        // An end that was asked for is not the data's fault.
        bool const isStopped = stopM != nullptr && stopM->load(std::memory_order_relaxed);
        if (decoderM->isOpen() && !isStopped)
            fail("the compressed data end early");
        return 0;
    }
}

// Of a regular file there is nothing to wait for; what lies in the buffer, and what a pipe holds already, need not be
// waited for either.
bool ByteSource::mayWait() const noexcept {
    pollfd state = {descriptorM, POLLIN, 0};
    return rawM.empty() && !atEndM && sizeM == 0 && poll(&state, 1, 0) == 0;
}

} // namespace nphost
