#include "host/StandardError.h"

#include "host/Interruption.h"
#include "host/Text.h"
#include "host/Waiting.h"

#include <cerrno>
#include <poll.h>
#include <string>
#include <unistd.h>

namespace nphost {

namespace {

// A command that is to end waits no more for somebody who reads.
void writeAll(std::string_view text) noexcept {
    while (!text.empty()) {
        ssize_t const written = ::write(STDERR_FILENO, text.data(), text.size());
        if (written > 0)
            text.remove_prefix(static_cast<std::size_t>(written));
        bool const waits = written < 0 && (errno == EAGAIN || errno == EINTR);
        if (written < 0 && (!waits || Interruption::isNoted()))
            return;
        if (waits)
            becomesReady(STDERR_FILENO, POLLOUT);
    }
}

} // namespace

void writeWhole(int descriptor, std::string_view text) noexcept {
    while (!text.empty()) {
        ssize_t const written = ::write(descriptor, text.data(), text.size());
        if (written < 0 && errno != EINTR)
            return;
        if (written > 0)
            text.remove_prefix(static_cast<std::size_t>(written));
    }
}

BAS::Mutex StandardError::lockM;
bool StandardError::progressShownM = false;

bool StandardError::isTerminal() noexcept {
    return isatty(STDERR_FILENO) == 1;
}

void StandardError::write(std::string_view text) noexcept {
    BAS::MutexGuard const guard(lockM);
    eraseShown();
    writeAll(text);
}

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
