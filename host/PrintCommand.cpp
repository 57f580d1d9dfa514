#include "host/PrintCommand.h"

#include "framework/STR/FileIo.h"
#include "host/ExitStatus.h"
#include "host/HostError.h"
#include "host/SameFile.h"

#include <algorithm>
#include <atomic>
#include <streambuf>
#include <unistd.h>

namespace nphost {

namespace {

// Passes the listing on and counts its lines for the progress line.
class CountingBuffer : public std::streambuf {
  public:
    explicit CountingBuffer(std::streambuf& target) : targetM(target) {}

    std::uint64_t lines() const { return linesM.load(std::memory_order_relaxed); }

  protected:
    int_type overflow(int_type character) override {
        if (traits_type::eq_int_type(character, traits_type::eof()))
            return traits_type::not_eof(character);
        char const byte = traits_type::to_char_type(character);
        count(&byte, 1);
        return targetM.sputc(byte);
    }
    std::streamsize xsputn(char const* text, std::streamsize length) override {
        count(text, length);
        return targetM.sputn(text, length);
    }
    int sync() override { return targetM.pubsync(); }

  private:
    void count(char const* text, std::streamsize length) {
        auto const found = static_cast<std::uint64_t>(std::count(text, text + length, '\n'));
        linesM.store(lines() + found, std::memory_order_relaxed); // only this thread writes
    }

    std::streambuf& targetM;
    std::atomic<std::uint64_t> linesM{0};
};

void printTo(Host& host, STR::FileIo& file, PrintOptions const& options) {
    CountingBuffer buffer(*file.stream().rdbuf());
    std::ostream counted(&buffer);
    bool const toTerminal = options.output == "/dev/stdout" && isatty(STDOUT_FILENO) == 1;
    std::uint64_t const total = host.loadProgress().lines; // about as many as were read
    ProgressLine const progress(
        "nphost: printing",
        [&] {
            return ProgressLine::Reading{buffer.lines(), buffer.lines(), total};
        },
        !toTerminal);
    host.plugIn().print(counted, !options.noHeading);
}

} // namespace

int print(PrintOptions const& options) {
    Configuration configuration = readConfiguration(options.common.configuration);
    if (isSameFile(configuration.dataFile(), options.output))
        throw HostError("the output " + options.output + " is the data file itself");
    Host host(std::move(configuration), options.common);
    host.start();
    STR::FileIo file(options.output, std::ios_base::out);
    if (file.isOpen())
        printTo(host, file, options);
    if (!file.closeFile())
        throw HostError(options.output + " cannot be written: " + file.failure().str());
    host.throwFailure();
    return FINE;
}

} // namespace nphost
