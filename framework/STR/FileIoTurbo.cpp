#include "framework/STR/FileIoTurbo.h"

#include "framework/STR/FilePlace.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

namespace STR {

namespace {
constexpr std::size_t blockSize = 256UL * 1024; // fits the second-level cache; larger blocks are read no faster
} // namespace

static_assert(FileIoTurbo::readModeCM == static_cast<long>(std::ios_base::in));

FileIoTurbo::~FileIoTurbo() {
    closeFile();
}

bool FileIoTurbo::openFile(BAS::String const& fileName, long mode) {
    // The name is kept whatever comes: reports about a file that does not open must name it.
    closeFile();
    fileNameM = fileName;
    fileSizeM = 0;
    lastLineCompleteM = true;
    if (mode != readModeCM || fileName.view().find('\0') != std::string_view::npos)
        return false;
    // O_NONBLOCK: opening a pipe or a device must not wait before it can be refused.
    int const descriptor = open(fileName.data(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (descriptor < 0)
        return false;
    struct stat status = {};
    if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode))
        streamM = fdopen(descriptor, "r");
    if (streamM == nullptr) {
        close(descriptor);
        return false;
    }
    fileSizeM = static_cast<unsigned long>(status.st_size);
    // Larger read-ahead; a hint, whose failing does not matter.
    posix_fadvise(descriptor, 0, 0, POSIX_FADV_SEQUENTIAL);
    // One byte, not unbuffered: an unbuffered stream flushes the console before it reads.
    setvbuf(streamM, &streamByteM, _IOFBF, sizeof streamByteM);
    __fsetlocking(streamM, FSETLOCKING_BYCALLER); // who reads a file asks for its end at every line
    return true;
}

bool FileIoTurbo::readLine(BAS::String& line) {
    std::string_view text;
    if (!readLine(text))
        return false;
    line.assign(text.data(), text.size());
    return true;
}

bool FileIoTurbo::readLine(std::string_view& line) {
    // What was searched before a block came is not searched again: a long line would take quadratic time.
    std::size_t searched = 0;
    do {
        std::string_view const ahead(bytesM + beginM, endM - beginM);
        std::size_t const length = ahead.find('\n', searched);
        if (length != std::string_view::npos) {
            line = ahead.substr(0, length);
            beginM += length + 1;
            lastLineCompleteM = true;
            return true;
        }
        searched = ahead.size();
    } while (fill());
    return takeRest(line);
}

// The unterminated last line, if that is why no more could be read.
bool FileIoTurbo::takeRest(std::string_view& line) {
    if (!endReachedM || beginM == endM)
        return false;
    line = {bytesM + beginM, endM - beginM};
    beginM = endM;
    lastLineCompleteM = false;
    return true;
}

FileVersion FileIoTurbo::version() const {
    struct stat status = {};
    if (streamM == nullptr || fstat(fileno(streamM), &status) != 0)
        return {};
    return versionOf(status);
}

// Reads what comes next behind what is there; false at the end of the file and on an error.
bool FileIoTurbo::fill() {
    endReachedM = false;
    if (streamM == nullptr || std::feof(streamM) != 0)
        return false;
    // Before the read and never behind it: what is read must have its place, or it is lost.
    makeRoom();
    ssize_t count = 0;
    do {
        count = read(fileno(streamM), bytesM + endM, capacityM - endM);
    } while (count < 0 && errno == EINTR);
    if (count > 0)
        endM += static_cast<std::size_t>(count);
    endReachedM = count == 0;
    return count > 0 || (endReachedM && beginM == endM && !showEnd());
}

// The end of the file is for stdio to see. False when the file has grown by then: a byte of it is read.
bool FileIoTurbo::showEnd() {
    int const byte = std::fgetc(streamM);
    if (byte == EOF)
        return true;
    bytesM[endM++] = static_cast<char>(byte);
    return false;
}

// At least half a block, with what was not yet returned at the front.
void FileIoTurbo::makeRoom() {
    if (beginM > 0)
        std::memmove(bytesM, bytesM + beginM, endM - beginM);
    endM -= beginM;
    beginM = 0;
    if (capacityM - endM >= blockSize / 2)
        return;
    std::size_t const larger = capacityM == 0 ? blockSize : 2 * capacityM;
    // Doubled, so that a line of any length is copied a constant number of times; by page tables where it is large.
    auto* const moved = static_cast<char*>(std::realloc(bytesM, larger));
    if (moved == nullptr)
        throw std::bad_alloc();
    bytesM = moved;
    capacityM = larger;
}

bool FileIoTurbo::closeFile() {
    // Also the memory of a long line: a reader stays closed from one load to the next.
    std::free(bytesM);
    bytesM = nullptr;
    capacityM = beginM = endM = 0;
    if (streamM == nullptr)
        return true;
    bool const closed = fclose(streamM) == 0;
    streamM = nullptr;
    return closed;
}

} // namespace STR
