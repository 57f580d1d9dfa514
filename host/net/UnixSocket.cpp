#include "host/net/UnixSocket.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>

namespace nphost {

namespace {

[[noreturn]] void fail(std::filesystem::path const& path, std::string const& what, int error) {
    throw HostError("the control socket " + visible(path.native()) + " " + what +
                    (error == 0 ? std::string() : ": " + std::system_category().message(error)));
}

sockaddr_un addressOf(std::filesystem::path const& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    // With room for the NUL at its end.
    if (path.native().size() >= sizeof address.sun_path)
        fail(path, "has a name that is longer than 107 bytes", 0);
    std::memcpy(address.sun_path, path.c_str(), path.native().size());
    return address;
}

FileDescriptor makeSocket(std::filesystem::path const& path, int flags) {
    FileDescriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
    if (!made)
        fail(path, "cannot be made", errno);
    return made;
}

bool connects(int descriptor, sockaddr_un const& address) {
    return connect(descriptor, reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0;
}

// The lock of a file of the daemon's own, which is gone with it. Two daemons that start at once must not each take the
// other's socket for a stale one. The folder itself would not do: whoever may read it may lock it.
class StartLock {
  public:
    explicit StartLock(std::filesystem::path const& socket)
        : socketM(socket), fileM(socket.parent_path() / ("." + socket.filename().native() + ".lock")) {
        // Another daemon holds it for a moment only; nobody must keep this one waiting for ever.
        constexpr int attempts = 50;
        constexpr useconds_t pauseMicroseconds = 100'000;
        for (int attempt = 0; !take(); ++attempt) {
            if (attempt >= attempts)
                fail(socketM, "cannot be made: another daemon that starts keeps " + visible(fileM.native()) + " locked",
                     0);
            usleep(pauseMicroseconds);
        }
    }
    StartLock(StartLock const&) = delete;
    StartLock& operator=(StartLock const&) = delete;
    ~StartLock() {
        unlink(fileM.c_str());
    } // before the lock goes, so that whoever waits for it sees a file without name

  private:
    bool take() {
        // In a folder that others may write to, the name may be anything: a link to somebody's file, a pipe. Such a one
        // must neither be followed nor waited for.
        constexpr mode_t ownerOnly = 0600;
        descriptorM = FileDescriptor(
            open(fileM.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, ownerOnly));
        struct stat opened = {};
        if (!descriptorM || fstat(descriptorM.get(), &opened) != 0)
            fail(socketM, "cannot be made: its lock file " + visible(fileM.native()), errno);
        if (!S_ISREG(opened.st_mode) || opened.st_uid != geteuid())
            fail(socketM, "cannot be made: its lock file " + visible(fileM.native()) + " is not this user's", 0);
        // A lock on a file without a name is none: its owner removed it and has gone. The next try takes what is there
        // then.
        struct stat named = {};
        return flock(descriptorM.get(), LOCK_EX | LOCK_NB) == 0 && lstat(fileM.c_str(), &named) == 0 &&
               named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
    }

    std::filesystem::path const& socketM;
    std::filesystem::path fileM;
    FileDescriptor descriptorM;
};

} // namespace

ListeningSocket::ListeningSocket(std::filesystem::path path)
    : pathM(std::move(path)), descriptorM(makeSocket(pathM, SOCK_NONBLOCK)) {
    sockaddr_un const address = addressOf(pathM);
    // Held until the socket listens: before that it refuses connections, and would look stale to another daemon.
    StartLock const lock(pathM);
    removeStale();
    constexpr mode_t allButOwnerAndGroup = 0117;
    // bind makes the name with the mode that the umask leaves: a later chmod would come too late.
    mode_t const before = umask(allButOwnerAndGroup);
    int const bound = bind(descriptorM.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address);
    int const error = errno;
    umask(before);
    if (bound != 0)
        fail(pathM, "cannot be made", error);
    // Kept so that close can tell whether the name is still this socket's.
    struct stat status = {};
    if (lstat(pathM.c_str(), &status) == 0) {
        deviceM = status.st_dev;
        nodeM = status.st_ino;
    }
    if (listen(descriptorM.get(), SOMAXCONN) != 0)
        fail(pathM, "cannot be made", errno);
}

void ListeningSocket::removeStale() const {
    struct stat status = {};
    if (lstat(pathM.c_str(), &status) != 0)
        return; // nothing there, or what bind will say
    if (!S_ISSOCK(status.st_mode))
        fail(pathM, "cannot be made: something else has that name", 0);
    // Without waiting: a daemon whose queue is full is one, too, and answers EAGAIN.
    FileDescriptor const probe = makeSocket(pathM, SOCK_NONBLOCK);
    // One that refuses belongs to nobody any more; any other answer comes from somebody, or from the system's rules.
    if (connects(probe.get(), addressOf(pathM)) || errno == EAGAIN)
        fail(pathM, "is in use: another daemon answers there", 0);
    if (errno != ECONNREFUSED)
        fail(pathM, "cannot be made", errno);
    unlink(pathM.c_str());
}

FileDescriptor ListeningSocket::accept() const noexcept {
    return FileDescriptor(accept4(descriptorM.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

void ListeningSocket::close() noexcept {
    if (!descriptorM)
        return;
    struct stat status = {};
    // The name may be another daemon's socket by now.
    if (nodeM != 0 && lstat(pathM.c_str(), &status) == 0 && status.st_dev == deviceM && status.st_ino == nodeM)
        unlink(pathM.c_str());
    descriptorM.reset();
}

FileDescriptor connectTo(std::filesystem::path const& path) {
    FileDescriptor made = makeSocket(path, 0);
    if (!connects(made.get(), addressOf(path)))
        throw HostError("no daemon answers at " + visible(path.native()) + ": " +
                        std::system_category().message(errno));
    return made;
}

} // namespace nphost
