#include "host/PrintCommand.h"

#include "host/ExitStatus.h"
#include "host/HostError.h"
#include "host/Interruption.h"
#include "host/ResultTarget.h"
#include "host/SameFile.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <exception>
#include <streambuf>
#include <unistd.h>
#include <utility>

namespace nphost {

namespace {

// Passes the listing on in pieces and counts its lines for the progress line. A failure ends the listing: a stream keeps
// it to itself, so the caller asks for it.
class ListingBuffer : public std::streambuf {
  public:
    ListingBuffer(PieceTarget& target, bool byLine) : targetM(target), byLineM(byLine) { clear(); }

    std::uint64_t lines() const { return linesM.load(std::memory_order_relaxed); }

    // The rest; throws what went wrong, now or before.
    void finish() {
        writeOut();
        if (failureM)
            std::rethrow_exception(std::exchange(failureM, nullptr));
    }

  protected:
    int_type overflow(int_type character) override {
        if (!writeOut())
            return traits_type::eof();
        if (!traits_type::eq_int_type(character, traits_type::eof()))
            sputc(traits_type::to_char_type(character));
        return traits_type::not_eof(character);
    }
    int sync() override { return !byLineM || writeOut() ? 0 : -1; }

  private:
    bool writeOut() noexcept {
        std::string_view const text(pbase(), static_cast<std::size_t>(pptr() - pbase()));
        auto const found = static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
        try {
            Interruption::check();
            if (!failureM) {
                targetM.buffer() += text;
                byLineM ? targetM.write() : targetM.writeLarge();
            }
            linesM.store(lines() + found, std::memory_order_relaxed); // only this thread writes
        } catch (...) {
            failureM = std::current_exception();
        }
        clear();
        return failureM == nullptr;
    }
    void clear() { setp(bytesM.data(), bytesM.data() + bytesM.size()); }

    PieceTarget& targetM;
    bool byLineM;
    std::exception_ptr failureM;
    std::atomic<std::uint64_t> linesM{0};
    std::array<char, 64UL * 1024> bytesM;
};

void printTo(Host& host, PieceTarget& target, PrintOptions const& options) {
    bool const toTerminal = !fileOf(options.output) && isatty(STDOUT_FILENO) == 1;
    ListingBuffer buffer(target, toTerminal);
    std::ostream listing(&buffer);
    std::uint64_t const total = host.loadProgress().lines; // about as many as were read
    ProgressLine const progress(
        "nphost: printing",
        [&] {
            return ProgressLine::Reading{buffer.lines(), buffer.lines(), total};
        },
        !toTerminal);
    host.plugIn().print(listing, !options.noHeading);
    buffer.finish();
}

} // namespace

int print(PrintOptions const& options) {
    Configuration configuration = readConfiguration(options.common.configuration);
    KeptFiles const files{configuration.dataFile(), options.common.configuration, configuration.logFile,
                          configuration.socket};
    if (char const* const kept = files.nameOf(fileOf(options.output).value_or("/dev/stdout")))
        throw HostError("the output " + options.output + " is " + kept);
    Host host(std::move(configuration), options.common);
    host.start();
    std::atomic<bool> stop{false};
    Interruption const interruption(stop);
    PieceTarget target(fileOf(options.output));
    printTo(host, target, options);
    host.throwFailure();
    target.sync();
    Interruption::check();
    target.finish();
    return FINE;
}

} // namespace nphost
