#include "host/service/DataFileLock.h"

#include "framework/STR/FilePlace.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace nphost {

namespace {

// Whether the descriptor still is what the name stands for.
bool isNamed(int descriptor, std::string const& name) {
    struct stat open = {};
    struct stat named = {};
    return fstat(descriptor, &open) == 0 && stat(name.c_str(), &named) == 0 && open.st_dev == named.st_dev &&
           open.st_ino == named.st_ino;
}

// For people: without it the lock holds, too.
void writeProcess(int descriptor) {
    std::string const text = std::to_string(getpid()) + "\n";
    bool const written = ftruncate(descriptor, 0) == 0 && pwrite(descriptor, text.data(), text.size(), 0) >= 0;
    static_cast<void>(written);
}

// Read without a lock: the holder may just be writing its number, and then is "another process".
std::string holderOf(int descriptor) {
    std::array<char, 32> text{};
    ssize_t const length = pread(descriptor, text.data(), text.size(), 0);
    long process = 0;
    if (length > 0)
        std::from_chars(text.data(), text.data() + length, process);
    return process > 0 ? "process " + std::to_string(process) : "another process";
}

} // namespace

DataFileLock::DataFileLock(std::filesystem::path dataFile) : dataFileM(std::move(dataFile)) {
    take();
}

DataFileLock::~DataFileLock() {
    BAS::MutexGuard const guard(lockM);
    // Only a file that is still this lock's: somebody may have removed it, and another daemon made its own. It goes
    // before the lock does, so that whoever gets the lock next sees that the file has no name any more.
    if (isHeld() && isBesideM)
        unlink(lockedM.c_str());
}

bool DataFileLock::take() {
    BAS::MutexGuard const guard(lockM);
    if (dataFileM.empty() || isHeld())
        return true;
    // What is left of a lock whose file is gone.
    descriptorM.reset();
    reasonM.clear();
    std::error_code error;
    // Daemons that name the file differently must come to the same lock.
    std::string const link = STR::followLinks(std::filesystem::absolute(dataFileM, error).native());
    std::filesystem::path const target = std::filesystem::weakly_canonical(link, error);
    lockBeside(error ? link : target.native());
    return isHeld();
}

std::string DataFileLock::reason() const {
    BAS::MutexGuard const guard(lockM);
    return reasonM;
}

bool DataFileLock::isHeld() const {
    return descriptorM && isNamed(descriptorM.get(), lockedM);
}

void DataFileLock::lockBeside(std::string const& target) {
    std::string const file = STR::folderOf(target) + "/." + std::filesystem::path(target).filename().native() + ".lock";
    isBesideM = STR::faultOfPlace(target) == nullptr;
    if (isBesideM)
        lockFile(file, O_RDWR | O_CREAT | O_NOFOLLOW);
    struct stat status = {};
    if (descriptorM || !reasonM.empty() || (isBesideM && lstat(file.c_str(), &status) == 0))
        return; // it is ours, or it is somebody else's
    isBesideM = false;
    lockFile(target, O_RDONLY);
}

// Sets the reason only when somebody else has the lock, or the file is there and cannot be opened.
void DataFileLock::lockFile(std::string const& file, int flags) {
    lockedM = file;
    do { // a daemon that ends removes its lock file
        descriptorM = FileDescriptor(open(file.c_str(), flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0600));
        if (!descriptorM) {
            int const error = errno;
            struct stat status = {};
            if (!isBesideM || lstat(file.c_str(), &status) == 0)
                reasonM = file + " cannot be opened: " + std::system_category().message(error);
            return;
        }
        // Only this error is somebody else's lock. Where the file system has none, deltas are not refused for that.
        if (flock(descriptorM.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
            reasonM = (isBesideM ? holderOf(descriptorM.get()) : "another process") + " holds the lock on " + file;
            descriptorM.reset();
            return;
        }
    } while (!isNamed(descriptorM.get(), file));
    if (isBesideM)
        writeProcess(descriptorM.get());
}

} // namespace nphost
