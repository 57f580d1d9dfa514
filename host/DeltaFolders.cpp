#include "host/DeltaFolders.h"

#include "framework/STR/FilePlace.h"
#include "host/FileDescriptor.h"
#include "host/Text.h"

#include <cerrno>
#include <fcntl.h>
#include <iterator>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

namespace nphost {

namespace {

using std::filesystem::path;

FileDescriptor openBelow(int folder, path const& rest) {
    open_how how = {};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    int opened = -1;
    int attempts = 100; // something is renamed meanwhile
    do
        opened = static_cast<int>(syscall(SYS_openat2, folder, rest.c_str(), &how, sizeof how));
    while (opened < 0 && (errno == EAGAIN || errno == EINTR) && --attempts > 0);
    return FileDescriptor(opened);
}

// The name is not to blame.
bool isWant(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == EAGAIN;
}

STR::FileVersion versionOfOpen(int descriptor) {
    struct stat status = {};
    return fstat(descriptor, &status) == 0 ? STR::versionOf(status) : STR::FileVersion();
}

bool isSame(struct stat const& one, path const& name) {
    struct stat other = {};
    return stat(name.c_str(), &other) == 0 && one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// The version of what the name means within the folder; none when it leads elsewhere, or when `error` says what kept from
// looking.
std::optional<STR::FileVersion> versionWithin(path const& folder, path const& file, int& error) {
    FileDescriptor const opened(open(folder.empty() ? "." : folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat status = {};
    if (!opened || fstat(opened.get(), &status) != 0) {
        error = isWant(errno) ? errno : error;
        return std::nullopt;
    }
    path before;
    for (auto part = file.begin(); part != file.end(); ++part) {
        before /= *part;
        path rest;
        for (auto next = std::next(part); next != file.end(); ++next)
            rest /= *next;
        if (rest.empty() || !isSame(status, before)) // by whichever name it was reached
            continue;
        if (FileDescriptor const found = openBelow(opened.get(), rest))
            return versionOfOpen(found.get());
        if (errno == ENOENT || errno == ENOTDIR || errno == EACCES)
            return STR::FileVersion();
        error = isWant(errno) ? errno : error;
    }
    return std::nullopt;
}

} // namespace

DeltaFolders::Found DeltaFolders::find(path const& file) const {
    std::string names;
    int error = 0;
    for (path const& folder : foldersM) {
        if (auto const version = versionWithin(folder, file, error))
            return {version, {}};
        names += (names.empty() ? "" : ", ") + visible(folder.native());
    }
    if (error != 0)
        return {std::nullopt,
                visible(file.native()) + " cannot be looked for: " + std::system_category().message(error)};
    return {std::nullopt, visible(file.native()) + " does not lie below a folder that deltaFolders names: " +
                              (names.empty() ? "there is none" : names)};
}

} // namespace nphost
