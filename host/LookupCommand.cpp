#include "host/LookupCommand.h"

#include "host/ExitStatus.h"
#include "host/HostError.h"
#include "host/Instant.h"
#include "host/LineInput.h"
#include "host/Numbers.h"
#include "host/Output.h"
#include "host/QuestionBatch.h"
#include "host/StandardError.h"
#include "host/Text.h"

#include <algorithm>
#include <atomic>
#include <sys/stat.h>
#include <unistd.h>

namespace nphost {

namespace {

// One line of standard input, in its columns.
struct Question {
    std::string_view number;
    std::string_view instant;
    std::string_view method;

    explicit Question(std::string_view line)
        : number(takeColumn(line)), instant(takeColumn(line)), method(takeColumn(line)) {}

  private:
    static std::string_view takeColumn(std::string_view& line) {
        std::size_t const end = std::min(line.find('\t'), line.size());
        std::string_view const column = line.substr(0, end);
        line.remove_prefix(std::min(end + 1, line.size()));
        return column;
    }
};

class StreamLookup {
  public:
    StreamLookup(Host& host, LookupOptions const& options, BAS::DateTime at)
        : outM(STDOUT_FILENO), batchM(host.plugIn(), outM, options.normalise),
          inM(STDIN_FILENO, [this] { answerAll(); }), atM(at), methodM(options.method) {}

    bool run() {
        {
            ProgressLine const progress("nphost: looking up", progressSource(), isatty(STDOUT_FILENO) != 1);
            for (std::string_view line; inM.next(line);) {
                take(line);
                count(line.size() + 1);
            }
            answerAll();
        }
        if (badLinesM > shownBadLinesCM)
            complain("standard input: " + std::to_string(badLinesM - shownBadLinesCM) + " more bad lines");
        return badLinesM == 0 && batchM.allFound();
    }

  private:
    static constexpr unsigned long shownBadLinesCM = 20;

    // Whoever asked so far may wait for the answers before asking on.
    void answerAll() {
        batchM.answer();
        outM.flush();
    }

    void take(std::string_view line) {
        Question const question(line);
        BAS::DateTime const at = question.instant.empty() ? atM : parseInstant(question.instant);
        std::optional<unsigned int> method = methodM;
        if (!hasDigit(question.number))
            reject(question, line.empty() ? "the line is empty" : "there is no number", question.number);
        else if (!at.isValid())
            reject(question, "the instant is not valid", question.instant);
        else if (!readMethod(question.method, method))
            reject(question, "the method is not 0, 1 or 2", question.method);
        else
            batchM.add(question.number, at, method);
    }

    static bool readMethod(std::string_view text, std::optional<unsigned int>& method) {
        if (text.empty())
            return true;
        if (text.size() != 1 || text[0] < '0' || text[0] > '2')
            return false;
        method = static_cast<unsigned int>(text[0] - '0');
        return true;
    }

    void reject(Question const& question, char const* reason, std::string_view what) {
        batchM.answer(); // the answers keep the order of the lines
        outM.append(question.number);
        outM.append('\t');
        outM.append(question.instant);
        outM.append(nothingFoundCM);
        if (++badLinesM <= shownBadLinesCM)
            complain("standard input:" + std::to_string(linesM.load(std::memory_order_relaxed) + 1) + ": " + reason +
                     ": '" + shortened(what) + "'");
    }

    // Only this thread writes the counts.
    void count(std::uint64_t bytes) {
        linesM.store(linesM.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        bytesM.store(bytesM.load(std::memory_order_relaxed) + bytes, std::memory_order_relaxed);
    }

    ProgressLine::Source progressSource() const {
        struct stat status = {};
        bool const isFile = fstat(STDIN_FILENO, &status) == 0 && S_ISREG(status.st_mode);
        auto const total = isFile ? static_cast<std::uint64_t>(status.st_size) : 0;
        return [this, total] { return ProgressLine::Reading{linesM.load(), bytesM.load(), total}; };
    }

    Output outM;
    QuestionBatch batchM;
    LineInput inM;
    BAS::DateTime atM;
    std::optional<unsigned int> methodM;
    std::atomic<std::uint64_t> linesM{0};
    std::atomic<std::uint64_t> bytesM{0};
    unsigned long badLinesM = 0;
};

BAS::DateTime instantOf(LookupOptions const& options) {
    if (!options.at)
        return BAS::DateTime::now();
    BAS::DateTime const at = parseInstant(*options.at);
    if (!at.isValid())
        throw HostError("'" + shortened(*options.at) +
                        "' is not a valid instant; write YYYYMMDDHHMMSS or YYYY-MM-DDTHH:MM:SS");
    return at;
}

void checkNumbers(std::vector<std::string> const& numbers) {
    for (std::string const& number : numbers)
        if (!hasDigit(number))
            throw HostError("'" + shortened(number) + "' is not a number" +
                            (number == "-" ? ": '-' stands alone, for standard input" : ""));
}

bool lookupArguments(Host& host, LookupOptions const& options, BAS::DateTime at) {
    Output out(STDOUT_FILENO);
    QuestionBatch batch(host.plugIn(), out, options.normalise);
    for (std::string const& number : options.numbers)
        batch.add(number, at, options.method);
    batch.answer();
    out.flush();
    return batch.allFound();
}

} // namespace

int lookup(LookupOptions const& options) {
    BAS::DateTime const at = instantOf(options);
    bool const fromInput = options.numbers.size() == 1 && options.numbers.front() == "-";
    if (!fromInput)
        checkNumbers(options.numbers);
    Host host(readConfiguration(options.common.configuration), options.common);
    host.start();
    bool const allFound = fromInput ? StreamLookup(host, options, at).run() : lookupArguments(host, options, at);
    host.throwFailure(); // a look-up that ran out of memory is not "not found"
    return allFound ? FINE : NOT_FOUND;
}

} // namespace nphost
