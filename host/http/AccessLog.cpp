#include "host/http/AccessLog.h"

#include "framework/BAS/DateTime.h"
#include "host/base/HostError.h"
#include "host/base/JsonWriter.h"
#include "host/base/Text.h"
#include "host/base/Waiting.h"
#include "host/log/LogReport.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <exception>
#include <fcntl.h>
#include <poll.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace nphost {

AccessLog::AccessLog(std::filesystem::path file, bool numbers) : fileM(std::move(file)), numbersM(numbers) {
    if (fileM.empty())
        return;
    {
        BAS::MutexGuard const guard(lockM);
        descriptorM = open();
    }
    threadM = std::thread([this] { run(); });
}

AccessLog::~AccessLog() {
    if (!threadM.joinable())
        return;
    {
        BAS::MutexGuard const guard(lockM);
        stopM = true;
    }
    changedM.notify_one();
    threadM.join();
}

FileDescriptor AccessLog::open() const {
    constexpr mode_t mode = 0640;
    // A terminal, or a pipe to a program that reads, is as good as a file; nothing waits for either.
    FileDescriptor made(::open(fileM.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, mode));
    if (!made)
        throw HostError("the access log " + visible(fileM.native()) + " cannot be opened: " +
                        (errno == ENXIO ? "nobody reads at its other end" : std::system_category().message(errno)));
    return made;
}

void AccessLog::note(Entry const& entry) noexcept {
    try {
        std::string line;
        JsonWriter writer(line);
        writer.beginObject()
            .member("at", clockTime(BAS::DateTime::now()))
            .member("address", entry.address.empty() ? std::string_view("unix") : entry.address)
            .member("client", entry.client)
            .member("method", entry.method)
            .member(numbersM ? "target" : "route", numbersM && !entry.target.empty() ? entry.target : entry.route)
            .member("status", entry.status)
            .member("bytes", entry.bytes)
            .member("microseconds", entry.duration.count())
            .endObject();
        line += '\n';
        BAS::MutexGuard const guard(lockM);
        if (waitingM.size() + line.size() > mostWaitingCM) {
            ++lostM;
            return;
        }
        bool const wasEmpty = waitingM.empty();
        waitingM += line;
        if (wasEmpty)
            changedM.notify_one();
    } catch (std::exception const&) { // NOLINT(bugprone-empty-catch): a line less
    }
}

void AccessLog::reopen() {
    if (fileM.empty())
        return;
    FileDescriptor fresh = open();
    BAS::MutexGuard const guard(lockM);
    freshM = std::move(fresh);
}

// What could not be written is lost: neither a full disk nor the reader of a pipe may hold anything up for long.
std::string_view AccessLog::unwritten(int descriptor, std::string_view text) {
    constexpr int mostWaits = 10; // of a tenth of a second
    for (int waits = 0; !text.empty();) {
        ssize_t const count = write(descriptor, text.data(), text.size());
        if (count > 0)
            text.remove_prefix(static_cast<std::size_t>(count));
        else if (count < 0 && errno == EAGAIN && waits < mostWaits)
            waits += becomesReady(descriptor, POLLOUT) ? 0 : 1;
        else if (count == 0 || errno != EINTR)
            break;
    }
    return text;
}

void AccessLog::run() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    std::string text;
    bool broken = false; // the last line that was written has no end
    for (bool last = false; !last;) {
        text.clear();
        int descriptor = -1;
        std::uint64_t told = 0;
        {
            BAS::MutexGuard guard(lockM);
            while (waitingM.empty() && !stopM)
                changedM.wait(lockM);
            last = stopM;
            text.swap(waitingM);
            if (freshM)
                descriptorM = std::move(freshM);
            if (lostM > 0) {
                text += "{\"lost\":" + std::to_string(lostM) + "}\n";
                told = std::exchange(lostM, 0);
            }
            if (broken)
                text.insert(0, 1, '\n');
            descriptor = descriptorM.get(); // only this thread exchanges it
        }
        std::string_view rest = unwritten(descriptor, text);
        if (rest.size() < text.size())
            broken = text[text.size() - rest.size() - 1] != '\n';
        if (rest.empty())
            continue;
        // Told with what can be written next. The last of the lines is the one that tells.
        if (broken && rest.size() == text.size())
            rest.remove_prefix(1); // the end of the broken one is no line
        auto const lines = static_cast<std::uint64_t>(std::count(rest.begin(), rest.end(), '\n'));
        BAS::MutexGuard const guard(lockM);
        lostM += told > 0 ? told + lines - 1 : lines;
    }
}

} // namespace nphost
