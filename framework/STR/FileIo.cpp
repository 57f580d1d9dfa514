#include "framework/STR/FileIo.h"

#include "framework/BAS/RegisteredObject.h"
#include "framework/BAS/Thread.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <poll.h>
#include <streambuf>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace STR {

namespace {

constexpr std::size_t bufferSize = 1024UL * 1024;
constexpr int pollMilliseconds = 100; // how often a blocked writer looks for its cancellation

// The descriptor that a name such as /dev/stdout or /dev/fd/3 stands for, or -1. Opened by name such a file could be
// truncated under what the process has written to it already.
int ownDescriptor(std::string_view name) {
    if (name == "/dev/stdout")
        return STDOUT_FILENO;
    if (name == "/dev/stderr")
        return STDERR_FILENO;
    for (std::string_view const folder : {"/dev/fd/", "/proc/self/fd/"}) {
        if (!name.starts_with(folder))
            continue;
        std::string_view const digits = name.substr(folder.size());
        int descriptor = -1;
        auto const [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), descriptor);
        if (error == std::errc() && end == digits.data() + digits.size())
            return descriptor;
    }
    return -1;
}

std::string folderOf(std::string const& path) {
    std::size_t const slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Follows symbolic links, the last of which may name a file that is not there yet, as far as an own descriptor.
std::string followLinks(std::string path) {
    constexpr int mostLinks = 40; // as the kernel's own limit
    for (int i = 0; i < mostLinks && ownDescriptor(path) < 0; ++i) {
        std::array<char, PATH_MAX> link;
        ssize_t const length = readlink(path.c_str(), link.data(), link.size());
        if (length < 0)
            break;
        std::string target(link.data(), static_cast<std::size_t>(length));
        path = target.starts_with('/') ? std::move(target) : folderOf(path).append("/").append(target);
    }
    return path;
}

bool syncFolder(std::string const& folder) {
    int const descriptor = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0)
        return errno == EACCES; // a folder that may be written but not read cannot be synced
    bool const synced = fsync(descriptor) == 0 || errno == EINVAL; // some file systems cannot sync a folder
    int const error = errno;
    close(descriptor);
    errno = error;
    return synced;
}

// Keeps the signal of a pipe without a reader from the process for the length of a scope: the caller sees EPIPE.
class PipeSignalBlock {
  public:
    PipeSignalBlock() {
        sigemptyset(&pipeM);
        sigaddset(&pipeM, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        pendingBeforeM = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &pipeM, &oldM);
    }
    PipeSignalBlock(PipeSignalBlock const&) = delete;
    PipeSignalBlock& operator=(PipeSignalBlock const&) = delete;
    ~PipeSignalBlock() {
        int const error = errno;
        timespec const now = {};
        if (!pendingBeforeM)
            sigtimedwait(&pipeM, nullptr, &now);
        pthread_sigmask(SIG_SETMASK, &oldM, nullptr);
        errno = error;
    }

  private:
    sigset_t pipeM;
    sigset_t oldM;
    bool pendingBeforeM = false;
};

bool cancelled() {
    BAS::Thread* const self = BAS::Thread::current();
    return self != nullptr && self->cancellationPending();
}

} // namespace

class FileIo::Buffer : public std::streambuf {
  public:
    Buffer() : bytesM(std::make_unique_for_overwrite<char[]>(bufferSize)) { clear(); }
    ~Buffer() override { closeDescriptor(); }

    void attach(int descriptor, bool isRegular) {
        descriptorM = descriptor;
        terminalM = isatty(descriptor) != 0;
        regularM = isRegular;
    }
    int descriptor() const { return descriptorM; }
    int error() const { return errorM; }

    // All of it; false with error() when that or something before failed.
    bool writeOut() {
        awaitWriter();
        writeBlock(pbase(), pptr());
        clear();
        return errorM == 0;
    }

    bool closeDescriptor() {
        if (descriptorM < 0)
            return true;
        awaitWriter();
        int const descriptor = descriptorM;
        descriptorM = -1;
        return close(descriptor) == 0;
    }

  protected:
    int_type overflow(int_type character) override {
        if (descriptorM < 0 || !(regularM ? handOver() : writeOut()))
            return traits_type::eof();
        if (!traits_type::eq_int_type(character, traits_type::eof())) {
            *pptr() = traits_type::to_char_type(character);
            pbump(1);
        }
        return traits_type::not_eof(character);
    }
    std::streamsize xsputn(char const* text, std::streamsize count) override {
        if (count > epptr() - pptr() || descriptorM < 0)
            return std::streambuf::xsputn(text, count);
        std::memcpy(pptr(), text, static_cast<std::size_t>(count));
        pbump(static_cast<int>(count));
        return count;
    }
    int sync() override { return !terminalM || writeOut() ? 0 : -1; }

  private:
    // A full block goes to the file in another thread while the next is filled: the system's copying takes as long as
    // the making of the text. Without such a thread it is written here. A file of one block starts none.
    bool handOver() {
        awaitWriter();
        if (errorM != 0)
            return false;
        char const* const end = pptr();
        try {
            if (otherBytesM == nullptr)
                otherBytesM = std::make_unique_for_overwrite<char[]>(bufferSize);
            writerM = std::thread([this, from = bytesM.get(), end] {
                writeBlock(from, end);
                sendToDisk(end - from);
            });
            std::swap(bytesM, otherBytesM);
        } catch (std::exception const&) { // no memory or no thread
            writeBlock(bytesM.get(), end);
        }
        clear();
        return true; // an error shows when the next block is handed over, or at the end
    }
    // What was written starts on its way to the disk, so that the sync at the end finds little to do, and what has come
    // there leaves the system's cache: a long file would otherwise take it from those who need it, and every page of it
    // would be a new one. Neither waits, and nothing depends on them.
    void sendToDisk(off_t size) {
        constexpr off_t window = 16L * bufferSize;
        sync_file_range(descriptorM, writtenM, size, SYNC_FILE_RANGE_WRITE);
        writtenM += size;
        if (writtenM > window)
            posix_fadvise(descriptorM, std::max<off_t>(0, writtenM - 2 * window), window, POSIX_FADV_DONTNEED);
    }
    void awaitWriter() {
        if (writerM.joinable())
            writerM.join();
    }

    void writeBlock(char const* from, char const* end) {
        PipeSignalBlock const block;
        while (errorM == 0 && from < end) {
            ssize_t const written = write(descriptorM, from, static_cast<std::size_t>(end - from));
            if (written >= 0)
                from += written;
            else if (errno == EAGAIN)
                waitForRoom();
            else if (errno != EINTR)
                errorM = errno;
        }
    }

    void clear() { setp(bytesM.get(), bytesM.get() + bufferSize); }
    void waitForRoom() {
        pollfd room = {descriptorM, POLLOUT, 0};
        if (cancelled())
            errorM = ECANCELED;
        else
            poll(&room, 1, pollMilliseconds);
    }

    std::unique_ptr<char[]> bytesM;
    std::unique_ptr<char[]> otherBytesM; // the writer's
    int descriptorM = -1;
    int errorM = 0;     // like the descriptor, the writer's while it runs
    off_t writtenM = 0; // the writer's
    bool terminalM = false;
    bool regularM = false;
    std::thread writerM; // at most one, for one block
};

FileIo::FileIo(BAS::String const& fileName, std::ios_base::openmode mode)
    : fileNameM(fileName), exceptionsM(std::uncaught_exceptions()), bufferM(std::make_unique<Buffer>()),
      streamM(bufferM.get()) {
    if (mode != std::ios_base::out || fileName.view().find('\0') != std::string_view::npos) {
        fail(EINVAL, "open");
        return;
    }
    try {
        openTarget();
    } catch (...) { // no destructor will run
        giveUp();
        throw;
    }
}

void FileIo::openTarget() {
    std::string const target = followLinks(fileNameM.str());
    if (int const own = ownDescriptor(target); own >= 0)
        openInPlace(fcntl(own, F_DUPFD_CLOEXEC, 0));
    else
        openReplacing(target);
}

FileIo::~FileIo() {
    if (std::uncaught_exceptions() > exceptionsM) {
        giveUp();
        return;
    }
    try {
        closeFile();
    } catch (...) { // no memory even to say so
        giveUp();
    }
}

bool FileIo::isOpen() const {
    return bufferM->descriptor() >= 0 && failureM.empty();
}

int FileIo::descriptorInPlace() const {
    return isOpen() && temporaryM.empty() ? bufferM->descriptor() : -1;
}

void FileIo::openInPlace(int descriptor) {
    if (descriptor < 0)
        fail(errno, "open");
    else
        bufferM->attach(descriptor, false);
}

void FileIo::openReplacing(std::string const& target) {
    struct stat old = {};
    // By its own name, so that the system's rules for following links hold.
    bool const exists = stat(fileNameM.data(), &old) == 0;
    if (!exists && errno != ENOENT)
        return fail(errno, "open");
    if (exists && !S_ISREG(old.st_mode))
        return openInPlace(open(target.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (exists && faccessat(AT_FDCWD, target.c_str(), W_OK, AT_EACCESS) != 0)
        return fail(errno, "open");

    targetM = target;
    // Until it has the old file's owner and mode, nobody else may open it.
    int const descriptor = createBeside(target, exists ? 0600 : 0666);
    if (descriptor < 0)
        return fail(errno, "create a file beside");
    bufferM->attach(descriptor, true);
    if (!exists)
        return;
    struct stat created = {};
    fstat(descriptor, &created);
    bool const sameOwner = old.st_uid == created.st_uid && old.st_gid == created.st_gid;
    if (!sameOwner && fchown(descriptor, old.st_uid, old.st_gid) != 0)
        return fail(errno, "keep the owner of");
    if (fchmod(descriptor, old.st_mode & 07777) != 0)
        return fail(errno, "keep the mode of");
}

// Sets temporaryM and returns its descriptor, or -1 with errno set.
int FileIo::createBeside(std::string const& target, unsigned mode) {
    static std::atomic<unsigned> files{0};
    constexpr std::size_t mostOfName = 200; // leaves room for the rest within NAME_MAX

    std::string const name = target.substr(target.rfind('/') + 1);
    if (name.empty()) {
        errno = target.empty() ? ENOENT : EISDIR;
        return -1;
    }
    int descriptor = -1;
    do {
        temporaryM = folderOf(target) + "/." + name.substr(0, mostOfName) + "." + std::to_string(getpid()) + "-" +
                     std::to_string(files.fetch_add(1)) + ".tmp";
        descriptor = open(temporaryM.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    } while (descriptor < 0 && errno == EEXIST);
    if (descriptor < 0)
        temporaryM.clear();
    return descriptor;
}

bool FileIo::closeFile() {
    if (isOpen() && !commit())
        streamM.setstate(std::ios_base::badbit);
    giveUp(); // a no-op after success
    if (failureM.empty())
        return true;
    if (!reportedM) {
        reportedM = true;
        BAS::Status status;
        status.set("STR::FileIo", "ERR_WRITE_FILE", BAS::Status::MAJOR, BAS::Status::Arguments{fileNameM, failureM});
        BAS::RegisteredObject::writeLog(status);
    }
    return false;
}

bool FileIo::syncFile() {
    if (!isOpen())
        return false;
    if (!bufferM->writeOut())
        return fail(bufferM->error(), "write"), false;
    if (!temporaryM.empty() && fsync(bufferM->descriptor()) != 0)
        return fail(errno, "sync"), false;
    return true;
}

bool FileIo::commit() {
    if (!syncFile())
        return false;
    if (temporaryM.empty()) {
        if (!bufferM->closeDescriptor())
            return fail(errno, "close"), false;
        return true;
    }
    if (!bufferM->closeDescriptor())
        return fail(errno, "close"), false;
    if (rename(temporaryM.c_str(), targetM.c_str()) != 0)
        return fail(errno, "replace"), false;
    temporaryM.clear();
    if (!syncFolder(folderOf(targetM)))
        return fail(errno, "sync the folder of"), false;
    return true;
}

void FileIo::giveUp() noexcept {
    bufferM->closeDescriptor();
    if (!temporaryM.empty())
        unlink(temporaryM.c_str());
    temporaryM.clear();
}

void FileIo::fail(int error, char const* action) {
    failureM = BAS::String(std::string("cannot ") + action + " it: " + std::system_category().message(error));
    streamM.setstate(std::ios_base::badbit);
}

} // namespace STR
