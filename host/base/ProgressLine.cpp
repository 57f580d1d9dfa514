#include "host/base/ProgressLine.h"

#include "host/base/StandardError.h"

#include <cmath>
#include <system_error>

namespace nphost {

namespace {

// Short work shows nothing.
constexpr std::chrono::milliseconds firstCM{500};
constexpr std::chrono::milliseconds periodCM{250};

std::string minutes(double seconds) {
    auto const whole = static_cast<unsigned long>(std::ceil(seconds));
    return whole < 60 ? std::to_string(whole) + " s"
                      : std::to_string(whole / 60) + " min " + std::to_string(whole % 60) + " s";
}

} // namespace

std::string progressText(ProgressLine::Reading const& reading, double seconds) {
    std::string const unit = std::string(" ") + reading.unit;
    std::string text = std::to_string(reading.lines) + unit;
    if (seconds <= 0)
        return text;
    text += ", " + std::to_string(std::lround(static_cast<double>(reading.lines) / seconds)) + unit + "/s";
    if (!reading.more.empty())
        text += ", " + reading.more;
    // The whole takes as long as the part took so far: files are read evenly enough for that.
    if (reading.done > 0 && reading.done < reading.total)
        text +=
            ", " +
            minutes(seconds * static_cast<double>(reading.total - reading.done) / static_cast<double>(reading.done)) +
            " left";
    return text;
}

ProgressLine::ProgressLine(std::string label, Source source, bool wanted)
    : labelM(std::move(label)), sourceM(std::move(source)) {
    if (!wanted || !StandardError::isTerminal())
        return;
    try {
        threadM = std::thread([this] { run(); });
    } catch (std::system_error const&) { // NOLINT(bugprone-empty-catch): the work goes on without a progress line
    }
}

ProgressLine::~ProgressLine() {
    if (!threadM.joinable())
        return;
    {
        // The flag under the lock: else the notice could come between the thread's look at it and its wait.
        BAS::MutexGuard const guard(lockM);
        stopM = true;
    }
    changedM.notify_all();
    // The source is the caller's: it must not be asked any more. The line goes only when nothing can show it again.
    threadM.join();
    StandardError::eraseProgress();
}

bool ProgressLine::isStopped(std::chrono::milliseconds wait) {
    Clock::time_point const end = Clock::now() + wait;
    BAS::MutexGuard const guard(lockM);
    // Woken before its time, it waits on.
    while (!stopM && changedM.wait_until(lockM, end) == std::cv_status::no_timeout) {
    }
    return stopM;
}

void ProgressLine::run() noexcept {
    for (bool stopped = isStopped(firstCM); !stopped; stopped = isStopped(periodCM))
        show();
}

// On the helper's thread. Standard error has a lock of its own, so that lines of the log and this one do not mix.
void ProgressLine::show() const noexcept {
    try {
        double const seconds = std::chrono::duration<double>(Clock::now() - startM).count();
        StandardError::showProgress(labelM + ": " + progressText(sourceM(), seconds));
    } catch (...) { // NOLINT(bugprone-empty-catch): the next one may find memory again
    }
}

} // namespace nphost
