#include "framework/STR/FileIo.h"

#include "framework/BAS/RegisteredObject.h"
#include "framework/BAS/Thread.h"
#include "framework/STR/FilePlace.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
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
        // The caller looks at the write's error, which these calls must not change.
        int const error = errno;
        timespec const now = {};
        // Only a signal of our own is taken: one that was pending before belongs to somebody else.
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
        // A person in front of a terminal wants to see each line; a file is none the better for it.
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
        // Forgotten first: a close that fails has closed it all the same, and the number may be somebody else's by now.
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
        // What fits, as nearly every piece does, costs no more than its copy.
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
            // Only when the thread runs: where it does not, this block is written below.
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
            // What was opened by its name never blocks: it is waited for where a cancellation shows.
            else if (errno == EAGAIN)
                waitForRoom();
            else if (errno != EINTR)
                errorM = errno;
            else if (cancelled())
                errorM = ECANCELED;
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

FileIo::FileIo(BAS::String const& fileName, std::ios_base::openmode mode, InPlace inPlace)
    : fileNameM(fileName), inPlaceM(inPlace), exceptionsM(std::uncaught_exceptions()),
      bufferM(std::make_unique<Buffer>()), streamM(bufferM.get()) {
    // NUL would cut the name off for the system, and another file would be written.
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
    // A copy of the descriptor, which this object may close; the process's own stays open.
    if (int const own = ownDescriptor(target); own >= 0)
        openInPlace(fcntl(own, F_DUPFD_CLOEXEC, 0));
    else
        openReplacing(target);
}

FileIo::~FileIo() {
    // More than at the construction: only then is it this object's scope that is being left, and the text is not whole.
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
    return isOpen() && targetM.empty() ? bufferM->descriptor() : -1;
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
    if (!exists && (errno != ENOENT || target.empty()))
        return fail(errno, "open");
    // Whoever reads a pipe or a device has it open: another file in its place would reach nobody.
    if (exists && !S_ISREG(old.st_mode)) {
        int const descriptor = open(target.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
        bool const isUnread = descriptor < 0 && errno == ENXIO; // "No such device or address" says nothing of these
        openInPlace(descriptor);
        if (isUnread && S_ISFIFO(old.st_mode))
            failureM = "the pipe has no reader";
        else if (isUnread && S_ISSOCK(old.st_mode))
            failureM = "it is a socket";
        return;
    }
    // The folder's rights would let it be replaced all the same. But who may not write a file may not exchange it.
    if (exists && faccessat(AT_FDCWD, target.c_str(), W_OK, AT_EACCESS) != 0)
        return fail(errno, "open");

    targetM = target;
    mayOverwriteM = exists && inPlaceM == IF_NEEDED;
    if (char const* const fault = faultOfPlace(target); fault != nullptr && !cannotReplace(errno, fault))
        return;
    // From here on there are two ways: a file beside that takes the name, or one elsewhere that is copied at the end.
    if (replaces())
        createTemporary(exists ? &old : nullptr);
    if (isOpen() || !failureM.empty())
        return;
    int const descriptor = createElsewhere();
    if (descriptor < 0)
        return fail(errno, "create a file for the content of");
    bufferM->attach(descriptor, true);
}

// The file that takes the old one's place, or at least its text.
void FileIo::createTemporary(struct stat const* old) {
    // Until it has the old file's owner and mode, nobody else may open it.
    int const descriptor = createBeside(targetM, old != nullptr ? 0600 : 0666, temporaryM);
    if (descriptor < 0) {
        cannotReplace(errno, "create a file beside");
        return;
    }
    bufferM->attach(descriptor, true);
    if (char const* const fault = old != nullptr ? keepIdentity(descriptor, *old) : nullptr)
        cannotReplace(errno, fault);
}

// What keeps the file from being replaced is a failure; or, where that is allowed, and waiting would not help, the
// reason to overwrite it. False in the first case.
bool FileIo::cannotReplace(int error, char const* action) {
    if (!mayOverwriteM || !isLasting(error)) {
        fail(error, action);
        return false;
    }
    inPlaceReasonM = failureText(error, action);
    return true;
}

bool FileIo::closeFile() {
    if (isOpen() && !commit())
        streamM.setstate(std::ios_base::badbit);
    // Whatever failed, nothing is left beside the file.
    giveUp(); // a no-op after success
    if (failureM.empty())
        return true;
    if (versionM == FileVersion()) // nothing was overwritten
        inPlaceReasonM = BAS::String();
    // Once: the destructor closes too.
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
    // Before the renaming: a crash behind it must not find a name with nothing behind it.
    if (replaces() && fsync(bufferM->descriptor()) != 0)
        return fail(errno, "sync"), false;
    return true;
}

bool FileIo::commit() {
    if (!syncFile())
        return false;
    // The moment that counts. Before it everything may fail; behind it the new content is what readers find.
    if (replaces() && rename(temporaryM.c_str(), targetM.c_str()) != 0 && !cannotReplace(errno, "replace"))
        return false;
    if (!inPlaceReasonM.empty() && !overwriteTarget())
        return false;
    bool const replaced = replaces();
    if (replaced) {
        temporaryM.clear();
        noteVersion(bufferM->descriptor());
    }
    if (!bufferM->closeDescriptor()) // not before: the lock on a file beside keeps it from being removed
        return fail(errno, "close"), false;
    // The name is only safe when its folder is on the disk; until then a crash brings back the old file, whole.
    if (replaced && !syncFolder(folderOf(targetM)))
        return fail(errno, "sync the folder of"), false;
    return true;
}

// The whole text is in the file beside, or elsewhere, by now.
bool FileIo::overwriteTarget() {
    // Not cut when it is opened: until there is room for the new content the old one stays.
    int const target = open(targetM.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW);
    if (target < 0)
        return fail(errno, "open"), false;
    bool begun = false;
    char const* const fault = overwrite(target, bufferM->descriptor(), begun);
    if (fault != nullptr)
        fail(errno, fault);
    if (fault != nullptr && begun)
        failureM = failureM + "; it is not whole now";
    // Its version also when it failed: whoever compares must see that the file is no longer what was loaded.
    if (begun)
        noteVersion(target);
    if (close(target) != 0 && fault == nullptr)
        return fail(errno, "close"), false;
    return fault == nullptr;
}

void FileIo::noteVersion(int descriptor) {
    struct stat status = {};
    if (fstat(descriptor, &status) == 0)
        versionM = versionOf(status);
}

void FileIo::giveUp() noexcept {
    bufferM->closeDescriptor();
    if (!temporaryM.empty())
        unlink(temporaryM.c_str());
    temporaryM.clear();
}

void FileIo::fail(int error, char const* action) {
    failureM = failureText(error, action);
    streamM.setstate(std::ios_base::badbit);
}

} // namespace STR
