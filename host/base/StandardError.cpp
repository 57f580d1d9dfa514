#include "host/base/StandardError.h"

#include "host/base/HostError.h"
#include "host/base/Interruption.h"
#include "host/base/Text.h"
#include "host/base/Waiting.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace nphost {

namespace {

bool hasRoom(int milliseconds) noexcept {
    pollfd room = {STDERR_FILENO, POLLOUT, 0};
    int ready = 0;
    do
        ready = poll(&room, 1, milliseconds);
    // A daemon's signals do not shorten the wait; it lasts for a second at most, or begins anew.
    while (ready < 0 && errno == EINTR);
    return ready > 0;
}

} // namespace

// Of the process, as the descriptor is: log, progress line and complaints share it.
BAS::Mutex StandardError::lockM;
bool StandardError::progressShownM = false;
bool StandardError::serviceM = false;
bool StandardError::stuckM = false;
bool StandardError::halfM = false;

bool StandardError::isTerminal() noexcept {
    return isatty(STDERR_FILENO) == 1;
}

bool StandardError::write(std::string_view text) noexcept {
    BAS::MutexGuard const guard(lockM);
    eraseShown();
    // A service may have had to give up in the midst of a line. The next one must not be read as its end.
    if (halfM && writeAll("\n") == 0)
        return false;
    std::size_t const written = writeAll(text);
    // Only a service gives up by itself; a command whose write fails has nobody to read on.
    halfM = serviceM && written > 0 && written < text.size();
    return written == text.size();
}

void StandardError::beOfService() noexcept {
    BAS::MutexGuard const guard(lockM);
    serviceM = true;
}

// A command that is to end waits no more for somebody who reads. A service writes no more at once than there surely is
// room for, because the descriptor may block.
std::size_t StandardError::writeAll(std::string_view text) noexcept {
    std::size_t done = 0;
    while (done < text.size() && !isStuck()) {
        std::size_t const most = serviceM ? std::size_t{PIPE_BUF} : text.size();
        ssize_t const written = ::write(STDERR_FILENO, text.data() + done, std::min(most, text.size() - done));
        if (written > 0)
            done += static_cast<std::size_t>(written);
        bool const waits = written < 0 && (errno == EAGAIN || errno == EINTR);
        if (written < 0 && (!waits || Interruption::isNoted()))
            break;
        if (waits)
            becomesReady(STDERR_FILENO, POLLOUT);
    }
    return done;
}

bool StandardError::isStuck() noexcept {
    // Whoever has waited in vain once asks without waiting: each line would cost its second again.
    stuckM = serviceM && !hasRoom(stuckM ? 0 : patienceMillisecondsCM);
    return stuckM;
}

// Rewritten in place: carriage return and an escape sequence, which only terminals understand.
void StandardError::showProgress(std::string_view text) noexcept {
    BAS::MutexGuard const guard(lockM);
    eraseShown();
    writeAll(text);
    progressShownM = true;
}

void StandardError::eraseProgress() noexcept {
    BAS::MutexGuard const guard(lockM);
    eraseShown();
}

void StandardError::keepOff(std::filesystem::path const& file, char const* what) {
    struct stat named = {};
    struct stat opened = {};
    // By device and file: the shell may have opened it by another name, or a link.
    if (file.empty() || stat(file.c_str(), &named) != 0 || fstat(STDERR_FILENO, &opened) != 0 ||
        !S_ISREG(named.st_mode) || named.st_dev != opened.st_dev || named.st_ino != opened.st_ino)
        return;
    // Not closed: the next file that is opened would get its number.
    if (int const nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC); nowhere >= 0) {
        dup2(nowhere, STDERR_FILENO);
        close(nowhere);
    }
    throw HostError(std::string("standard error is ") + what);
}

void StandardError::eraseShown() noexcept {
    if (progressShownM)
        writeAll("\r\x1b[K");
    progressShownM = false;
}

void complain(std::string_view text) noexcept {
    try {
        std::string line = "nphost: ";
        appendVisible(line, text);
        line += '\n';
        StandardError::write(line);
    } catch (...) { // out of memory: better unescaped than not at all
        StandardError::write(text);
    }
}

} // namespace nphost
