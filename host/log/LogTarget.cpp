#include "host/log/LogTarget.h"

#include "host/base/HostError.h"
#include "host/base/StandardError.h"
#include "host/base/Text.h"
#include "host/base/Waiting.h"

#include <cerrno>
#include <fcntl.h>
#include <system_error>

namespace nphost {

LogTarget::LogTarget(std::filesystem::path file) : fileM(std::move(file)) {
    if (std::string const reason = reopen(); !reason.empty())
        throw HostError("the log file " + visible(fileM.native()) + " cannot be opened: " + reason);
}

FileDescriptor LogTarget::open() const {
    constexpr mode_t mode = 0640;
    // Not waiting for whoever may read, if somebody names a pipe.
    return FileDescriptor(
        ::open(fileM.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, mode));
}

bool LogTarget::write(std::string_view line) noexcept {
    BAS::MutexGuard const guard(lockM);
    if (!descriptorM)
        return StandardError::write(line);
    // The next line must not be read as the end of half a one.
    if (halfM && writeWhole(descriptorM.get(), "\n") == 0)
        return false;
    std::size_t const written = writeWhole(descriptorM.get(), line);
    halfM = written > 0 && written < line.size();
    return written == line.size();
}

std::string LogTarget::reopen() {
    if (fileM.empty())
        return {};
    // Opened before the old one is let go: if it cannot be, the log goes on in the old file.
    FileDescriptor fresh = open();
    if (!fresh)
        return std::system_category().message(errno);
    BAS::MutexGuard const guard(lockM);
    descriptorM = std::move(fresh);
    halfM = false;
    return {};
}

} // namespace nphost
