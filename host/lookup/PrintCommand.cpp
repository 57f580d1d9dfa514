#include "host/lookup/PrintCommand.h"

#include "host/base/ExitStatus.h"
#include "host/base/HostError.h"
#include "host/base/Interruption.h"
#include "host/config/DaemonFiles.h"
#include "host/module/Host.h"
#include "host/records/ResultTarget.h"
#include "host/records/SameFile.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <exception>
#include <memory>
#include <streambuf>
#include <string>
#include <unistd.h>
#include <utility>

namespace nphost {

namespace {

constexpr char const* printHelpCM =
    R"(Without the heading the listing is a data file again: sorted, in stored form and
without bad lines. It is compressed if the name of its file ends in .gz or .zst; a load
does not read it then.

Examples:
  nphost print --config examples/nphost.toml
  nphost print --config examples/nphost.toml --no-heading --output clean.dat

)";

struct PrintOptions {
    CommonOptions common;
    std::string output = "/dev/stdout";
    bool noHeading = false;
};

// Passes the listing on in pieces and counts its lines for the progress line. A failure ends the listing: a stream
// keeps it to itself, so the caller asks for it.
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
    // The stream calls it when the buffer is full, and takes end-of-file for a failure: then it writes no more.
    int_type overflow(int_type character) override {
        if (!writeOut())
            return traits_type::eof();
        if (!traits_type::eq_int_type(character, traits_type::eof()))
            sputc(traits_type::to_char_type(character));
        return traits_type::not_eof(character);
    }
    // The listing flushes every line: only a terminal's reader gains by it.
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

int print(PrintOptions const& options) {
    Configuration configuration = options.common.readConfiguration();
    auto const daemon = configuration.of<DaemonFiles>();
    // Before the load: an output that must not be is told at once.
    KeptFiles const files{configuration.dataFile(), options.common.configuration, daemon.logFile, daemon.socket};
    if (char const* const kept = files.nameOf(fileOf(options.output).value_or("/dev/stdout")))
        throw HostError("the output " + options.output + " is " + kept);
    Host host(std::move(configuration), options.common);
    // Signals act as ever while the data are loaded: there is no temporary file yet.
    host.start();
    // Nothing is read here that the flag could end; the writes look at the signal themselves.
    std::atomic<bool> stop{false};
    Interruption const interruption(stop);
    PieceTarget target(fileOf(options.output));
    printTo(host, target, options);
    host.throwFailure();
    // What takes time, and may fail for want of space, comes before the last look at the signal.
    target.sync();
    Interruption::check();
    target.finish();
    return FINE;
}

void declarePrint(Arguments& arguments, CommonOptions& common) {
    auto const options = std::make_shared<PrintOptions>();
    addConfiguration(arguments, common).required();
    arguments.add("-o,--output", "FILE", options->output, "The file to write; default: standard output").named();
    arguments.flag("--no-heading", options->noHeading, "Leave out the heading");
    arguments.footer(std::string(printHelpCM) + exitStatusHelpCM);
    arguments.runs([options, &common] {
        options->common = common;
        return print(*options);
    });
}

} // namespace

Command const printCommandCM = {"print", "Print all records, in the order of their numbers", declarePrint};

} // namespace nphost
