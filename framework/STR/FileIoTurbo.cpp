#include "framework/STR/FileIoTurbo.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace STR {

static_assert(FileIoTurbo::readModeCM == static_cast<long>(std::ios_base::in));

FileIoTurbo::~FileIoTurbo() {
    closeFile();
}

bool FileIoTurbo::openFile(BAS::String const& fileName, long mode) {
    closeFile();
    fileNameM = fileName;
    fileSizeM = 0;
    if (mode != readModeCM || fileName.view().find('\0') != std::string_view::npos)
        return false;
    if (!blockM)
        blockM = std::make_unique<char[]>(blockSizeCM);
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
    posix_fadvise(descriptor, 0, 0, POSIX_FADV_SEQUENTIAL);
    setvbuf(streamM, blockM.get(), _IOFBF, blockSizeCM);
    return true;
}

bool FileIoTurbo::readLine(BAS::String& line) {
    if (streamM == nullptr)
        return false;
    errno = 0;
    ssize_t const length = getline(&lineM, &lineCapacityM, streamM);
    if (length < 0) {
        if (errno == ENOMEM && ferror(streamM) == 0)
            throw std::bad_alloc();
        return false;
    }
    auto end = static_cast<std::size_t>(length);
    if (end > 0 && lineM[end - 1] == '\n')
        --end;
    else if (ferror(streamM) != 0)
        return false; // the file broke off inside a line
    else
        clearerr(streamM); // an unterminated last line: its end of file shows at the next read
    line.assign(lineM, end);
    return true;
}

bool FileIoTurbo::closeFile() {
    std::free(lineM);
    lineM = nullptr;
    lineCapacityM = 0;
    if (streamM == nullptr)
        return true;
    bool const closed = fclose(streamM) == 0;
    streamM = nullptr;
    return closed;
}

} // namespace STR
