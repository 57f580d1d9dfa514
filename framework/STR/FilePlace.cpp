#include "framework/STR/FilePlace.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace STR {

namespace {

constexpr std::size_t mostOfName = 200; // leaves room for the rest within NAME_MAX
constexpr char suffix[] = ".tmp";

std::string nameIn(std::string const& path) {
    return path.substr(path.rfind('/') + 1);
}

// A hidden name that says whose it is: listings of the folder pass it over, and leftovers can be told from other files.
std::string temporaryPrefix(std::string const& name) {
    return std::string(".").append(name, 0, mostOfName) + ".";
}

void closeKeepingError(int descriptor) {
    // Callers look at the error of what failed before, which a close may change.
    int const error = errno;
    close(descriptor);
    errno = error;
}

// A number in front of the text, which loses it; negative when there is none.
long takeNumber(std::string_view& text) {
    long number = -1;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc())
        return -1;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return number;
}

// The process in the name of a temporary file; negative when it is not one of these.
long writerOf(std::string_view entry, std::string const& prefix) {
    if (!entry.starts_with(prefix))
        return -1;
    entry.remove_prefix(prefix.size());
    // Every part must fit: what is not certainly ours is never removed.
    long const process = takeNumber(entry);
    if (process <= 0 || !entry.starts_with('-'))
        return -1;
    entry.remove_prefix(1);
    return takeNumber(entry) >= 0 && entry == suffix ? process : -1;
}

// In a container the process before this one often had the same number.
bool isGone(long process) {
    // A process of another account is there as well: the signal is then refused, and not without a receiver.
    auto const id = static_cast<pid_t>(process);
    return id == getpid() || (kill(id, 0) != 0 && errno == ESRCH);
}

bool removeUnlocked(std::string const& file) {
    int const descriptor = open(file.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    if (descriptor < 0)
        return false;
    // The lock decides: a writer in another container has a number that means nothing here, but holds its lock.
    struct stat status = {};
    bool const removed = fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) &&
                         flock(descriptor, LOCK_EX | LOCK_NB) == 0 && unlink(file.c_str()) == 0;
    close(descriptor);
    return removed;
}

// Like createBeside, but without a trace where the file system can do that.
int createBesideForTrial(std::string const& target) {
    int descriptor = open(folderOf(target).c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (descriptor >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL))
        return descriptor;
    // The file system knows no file without a name. One with a name, for a moment, says the same.
    std::string name;
    descriptor = createBeside(target, 0600, name);
    if (descriptor >= 0)
        unlink(name.c_str());
    return descriptor;
}

// Null when the content fits; nothing is changed.
char const* makeRoom(int target, off_t size) {
    rlimit limit = {};
    // Asked before: a write beyond the limit raises a signal that ends the process.
    if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
        static_cast<rlim_t>(size) > limit.rlim_cur) {
        errno = EFBIG;
        return "write";
    }
    int failed = 0;
    do {
        // Promised before the first byte is overwritten: behind it the old content cannot be brought back.
        failed = fallocate(target, FALLOC_FL_KEEP_SIZE, 0, size);
    } while (failed != 0 && errno == EINTR);
    bool const noRoom = failed != 0 && (errno == ENOSPC || errno == EDQUOT || errno == EFBIG);
    return noRoom ? "make room for" : nullptr; // a file system that cannot promise room has to be tried
}

bool writeAt(int target, char const* bytes, std::size_t size, off_t place) {
    // A write may be cut short by a signal or a full disk; the rest is tried, and says which.
    while (size > 0) {
        ssize_t const written = pwrite(target, bytes, size, place);
        if (written < 0 && errno != EINTR)
            return false;
        std::size_t const taken = written < 0 ? 0 : static_cast<std::size_t>(written);
        bytes += taken;
        size -= taken;
        place += static_cast<off_t>(taken);
    }
    return true;
}

ssize_t readAt(int source, char* bytes, std::size_t size, off_t place) {
    ssize_t count = 0;
    do {
        count = pread(source, bytes, size, place);
    } while (count < 0 && errno == EINTR);
    return count;
}

char const* copy(int target, int source, off_t size, bool& begun) {
    constexpr std::size_t block = 1024UL * 1024;
    auto const bytes = std::make_unique_for_overwrite<char[]>(block);
    for (off_t place = 0; place < size;) {
        ssize_t const count = readAt(source, bytes.get(), block, place);
        // The end before the size is a failure: somebody cut what is copied.
        if (count <= 0) {
            errno = count < 0 ? errno : EIO;
            return "read what to write to";
        }
        // Said before the write: one that fails may have changed something.
        begun = true;
        if (!writeAt(target, bytes.get(), static_cast<std::size_t>(count), place))
            return "write";
        place += count;
    }
    return nullptr;
}

} // namespace

BAS::String failureText(int error, std::string const& action) {
    return BAS::String("cannot " + action + " it: " + std::system_category().message(error));
}

int ownDescriptor(std::string_view name) {
    if (name == "/dev/stdout")
        return STDOUT_FILENO;
    if (name == "/dev/stderr")
        return STDERR_FILENO;
    // Digits and no more, as the system itself takes these names.
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

std::string followLinks(std::string path) {
    constexpr int mostLinks = 40; // as the kernel's own limit
    // Followed by hand: the last link may name what is not there yet, and it is its target that is to be replaced.
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

FileVersion versionOf(struct stat const& status) {
    auto const nanoseconds = [](timespec const& time) { return time.tv_sec * 1'000'000'000 + time.tv_nsec; };
    return {status.st_dev, status.st_ino, static_cast<std::uint64_t>(status.st_size), nanoseconds(status.st_mtim),
            nanoseconds(status.st_ctim)};
}

FileVersion versionOf(BAS::String const& fileName) {
    struct stat status = {};
    return stat(fileName.data(), &status) == 0 ? versionOf(status) : FileVersion();
}

bool isLasting(int error) {
    // A full disk may have room tomorrow, a mount stays a mount: only for the second is a file put at risk.
    constexpr std::array passing = {ENOSPC, EDQUOT, EMFILE, ENFILE, ENOMEM, EIO, EINTR};
    return std::find(passing.begin(), passing.end(), error) == passing.end();
}

int createBeside(std::string const& target, unsigned mode, std::string& name) {
    // Several writers of one process, of one file even, must not meet.
    static std::atomic<unsigned> files{0};
    name.clear();
    std::string const prefix = temporaryPrefix(nameIn(target)) + std::to_string(getpid()) + "-";
    if (nameIn(target).empty()) {
        errno = target.empty() ? ENOENT : EISDIR;
        return -1;
    }
    // O_EXCL: a name that is there is somebody else's, a link that was put there included.
    for (;;) {
        std::string const file = folderOf(target) + "/" + prefix + std::to_string(files.fetch_add(1)) + suffix;
        int const descriptor = open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode);
        if (descriptor < 0 && errno == EEXIST)
            continue;
        struct stat status = {};
        // Somebody who removes leftovers may have been there between the making and the lock.
        if (descriptor >= 0 && flock(descriptor, LOCK_EX | LOCK_NB) == 0 && fstat(descriptor, &status) == 0 &&
            status.st_nlink == 0) {
            close(descriptor);
            continue;
        }
        if (descriptor >= 0)
            name = file;
        return descriptor;
    }
}

int createElsewhere() {
    std::error_code error;
    std::filesystem::path const folder = std::filesystem::temp_directory_path(error);
    int const descriptor = error ? -1 : open(folder.c_str(), O_TMPFILE | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
    // In memory only where no disk takes it: a whole data file has to fit.
    return descriptor >= 0 ? descriptor : memfd_create("content", MFD_CLOEXEC);
}

char const* faultOfPlace(std::string const& target) {
    struct statx status = {};
    if (statx(AT_FDCWD, target.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS, &status) != 0 ||
        // A kernel that cannot say so leaves it to the renaming to fail.
        (status.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) == 0 ||
        (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) == 0)
        return nullptr;
    errno = EBUSY; // as a rename would
    return "replace";
}

char const* keepIdentity(int descriptor, struct stat const& old) {
    struct stat created = {};
    fstat(descriptor, &created);
    // Only where it differs: an ordinary account may not give files away, and need not.
    bool const sameOwner = old.st_uid == created.st_uid && old.st_gid == created.st_gid;
    if (!sameOwner && fchown(descriptor, old.st_uid, old.st_gid) != 0)
        return "keep the owner of";
    return fchmod(descriptor, old.st_mode & 07777) != 0 ? "keep the mode of" : nullptr;
}

char const* overwrite(int target, int source, bool& begun) {
    struct stat status = {};
    if (fstat(source, &status) != 0)
        return "read what to write to";
    if (char const* const fault = makeRoom(target, status.st_size))
        return fault;
    if (char const* const fault = copy(target, source, status.st_size, begun))
        return fault;
    begun = true;
    // Cut last: what fails before leaves as much of the old content as there can be.
    if (ftruncate(target, status.st_size) != 0)
        return "cut";
    return fsync(target) != 0 ? "sync" : nullptr;
}

bool syncFolder(std::string const& folder) {
    int const descriptor = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0)
        return errno == EACCES; // a folder that may be written but not read cannot be synced
    bool const synced = fsync(descriptor) == 0 || errno == EINVAL; // some file systems cannot sync a folder
    closeKeepingError(descriptor);
    return synced;
}

Rewriting rewritingOf(BAS::String const& fileName) {
    auto const failed = [](Rewriting::Way way, char const* action) {
        return Rewriting{isLasting(errno) ? way : Rewriting::IMPOSSIBLE, failureText(errno, action)};
    };
    // Each step as FileIo takes it, but for the last: what this promises is what a delta will meet.
    std::string const target = followLinks(fileName.str());
    struct stat old = {};
    bool const exists = stat(fileName.data(), &old) == 0;
    if (!exists && errno != ENOENT)
        return failed(Rewriting::IMPOSSIBLE, "open");
    if (exists && !S_ISREG(old.st_mode)) {
        errno = S_ISDIR(old.st_mode) ? EISDIR : EINVAL;
        return failed(Rewriting::IMPOSSIBLE, "replace");
    }
    if (exists && faccessat(AT_FDCWD, target.c_str(), W_OK, AT_EACCESS) != 0)
        return failed(Rewriting::IMPOSSIBLE, "open");
    if (exists && faultOfPlace(target) != nullptr)
        return failed(Rewriting::IN_PLACE, "replace");
    int const descriptor = createBesideForTrial(target);
    if (descriptor < 0)
        return failed(exists ? Rewriting::IN_PLACE : Rewriting::IMPOSSIBLE, "create a file beside");
    char const* const fault = exists ? keepIdentity(descriptor, old) : nullptr;
    closeKeepingError(descriptor);
    return fault == nullptr ? Rewriting() : failed(Rewriting::IN_PLACE, fault);
}

unsigned removeLeftovers(BAS::String const& fileName) {
    std::string const target = followLinks(fileName.str());
    std::string const prefix = temporaryPrefix(nameIn(target));
    unsigned removed = 0;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folderOf(target), error), end; !error && entry != end;
         entry.increment(error)) {
        long const writer = writerOf(entry->path().filename().native(), prefix);
        if (writer > 0 && isGone(writer) && removeUnlocked(entry->path().native()))
            ++removed;
    }
    return removed;
}

} // namespace STR
