#include "host/base/RegularFile.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>

namespace nphost {

FileDescriptor openRegularFile(std::filesystem::path const& file) {
    FileDescriptor made(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status = {};
    if (!made || fstat(made.get(), &status) != 0)
        throw HostError(visible(file.native()) + ": cannot be read: " + std::system_category().message(errno));
    if (S_ISDIR(status.st_mode))
        throw HostError(visible(file.native()) + ": cannot be read: " + std::system_category().message(EISDIR));
    if (!S_ISREG(status.st_mode))
        throw HostError(visible(file.native()) + ": is no regular file");
    return made;
}

} // namespace nphost
