#include "host/lookup/LookupCommand.h"

#include "host/base/ExitStatus.h"
#include "host/base/HostError.h"
#include "host/base/Output.h"
#include "host/base/StandardError.h"
#include "host/base/Text.h"
#include "host/fields/DataClock.h"
#include "host/fields/FieldOptions.h"
#include "host/fields/Numbers.h"
#include "host/fields/QuestionLine.h"
#include "host/lookup/QuestionBatch.h"
#include "host/module/Host.h"
#include "host/records/LineInput.h"

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace nphost {

namespace {

constexpr char const* lookupHelpCM =
    R"(Prints one line a number: number, instant, valid-from and network, separated by
tabs; '-' for the last two when no record holds. With --ported a fifth column says whether
the network is another than that of the number's range, the longest shorter prefix with a
record for the instant: true or false; '-' where that cannot be told.

Numbers are taken in stored form: international access code, country code and
national number, as 00447700900123. With --normalise they may be written as people
do, '07700 900-123' or '+44 (0)7700 900123', or as tel: or sip: addresses: visual
separators and extensions go, and the configured dialling codes are applied; the answer
shows the stored form.

Methods: 'best' takes the longest stored prefix that has a record for the instant,
'exact' the number itself, 'shortest' the shortest stored prefix and no other.

With '-' in place of the numbers, questions are read from standard input, one a line:
number and, if wanted, instant and method (best, exact, shortest, or 0, 1, 2), separated
by white space; further columns are ignored. A line that is no question is answered with
'-', and reported. Answers keep the order of the questions and are written at the latest
when the input pauses.

Examples:
  nphost lookup --config examples/nphost.toml --at 20240615120000 00447700900123
  nphost lookup --config examples/nphost.toml --normalise '07700 900123'
  nphost lookup --config examples/nphost.toml - < examples/queries.tsv

)";

struct LookupOptions {
    CommonOptions common;
    std::vector<std::string> numbers; // or one "-": standard input
    std::optional<std::string> at;    // none: now
    std::optional<unsigned int> method;
    QuestionBatch::Style style;
};

// One line more, if numbers that were not found are not in stored form: they may be a person's.
void hintAtNormalise(QuestionBatch const& batch) {
    if (batch.notStored() == 0)
        return;
    std::string const others =
        batch.notStored() > 1 ? " and " + std::to_string(batch.notStored() - 1) + " more are not" : " is not";
    auto const first = shortened(batch.firstNotStored());
    complain("'" + first + "'" + others +
             " in stored form, which begins with the international access code; --normalise takes numbers as people "
             "write them");
}

// Reads ahead what has come and answers it together; before every read that may wait it answers and writes what it has
// (LineInput's `beforeRead`), so that a program that asks and waits is served.
class StreamLookup {
  public:
    StreamLookup(Host& host, LookupOptions const& options, DataClock const& clock, BAS::DateTime at)
        : outM(STDOUT_FILENO), batchM(host.plugIn(), outM, host.numbers(), options.style),
          inM(STDIN_FILENO, [this] { answerAll(); }), clockM(clock), atM(at), methodM(options.method),
          normaliseM(options.style.normalise) {}

    bool run() {
        {
            // Ends before the last words are said: it could be shown once more beneath them.
            ProgressLine const progress("nphost: looking up", progressSource(), isatty(STDOUT_FILENO) != 1);
            for (std::string_view line; inM.next(line);) {
                take(line);
                count(line.size() + 1);
            }
            answerAll();
        }
        if (badLinesM > shownBadLinesCM)
            complain("standard input: " + std::to_string(badLinesM - shownBadLinesCM) + " more bad lines");
        hintAtNormalise(batchM);
        return badLinesM == 0 && batchM.allFound();
    }

  private:
    static constexpr unsigned long shownBadLinesCM = 20;

    // Whoever asked so far may wait for the answers before asking on.
    void answerAll() {
        batchM.answer();
        outM.flush();
    }

    // Not counting those at its end.
    static bool holdsReturn(std::string_view line) {
        return line.find('\r') < line.find_last_not_of('\r') && !trimmed(line).empty();
    }

    void take(std::string_view line) {
        QuestionLine const question(line, normaliseM);
        BAS::DateTime const at = question.instant.empty() ? atM : clockM.read(question.instant);
        std::optional<unsigned int> const method = question.method.empty() ? methodM : methodOfColumn(question.method);
        // First, since the columns of such a line are not what they seem.
        if (holdsReturn(line))
            return reject(question, "a carriage return is in the line", line);
        if (question.number.empty())
            return reject(question, trimmed(line).empty() ? "the line is empty" : sentenceOf(NumberKind::NONE), {});
        if (!at.isValid())
            return reject(question, "the instant is not valid", question.instant);
        if (!question.method.empty() && !method)
            return reject(question, "the method is not best, exact or shortest, nor 0, 1 or 2", question.method);
        NumberKind const kind = batchM.add(question.number, at, method);
        if (kind != NumberKind::NUMBER)
            reject(question, sentenceOf(kind), question.number);
    }

    // A line that is no question gets an answer line, too, so that answers can be counted off against questions.
    void reject(QuestionLine const& question, char const* reason, std::string_view what) {
        batchM.answer(); // the answers keep the order of the lines
        outM.append(question.number);
        outM.append('\t');
        outM.append(question.instant);
        outM.append(batchM.nothingFound());
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
        // Of a pipe the length is not known, so no time left is shown.
        bool const isFile = fstat(STDIN_FILENO, &status) == 0 && S_ISREG(status.st_mode);
        auto const total = isFile ? static_cast<std::uint64_t>(status.st_size) : 0;
        return [this, total] { return ProgressLine::Reading{linesM.load(), bytesM.load(), total}; };
    }

    Output outM;
    QuestionBatch batchM;
    LineInput inM;
    DataClock const& clockM;
    BAS::DateTime atM;
    std::optional<unsigned int> methodM;
    bool normaliseM;
    std::atomic<std::uint64_t> linesM{0};
    std::atomic<std::uint64_t> bytesM{0};
    unsigned long badLinesM = 0;
};

// Before the data are loaded.
void checkNumbers(std::vector<std::string> const& numbers, NumberForm const* form) {
    BAS::String read;
    for (std::string const& number : numbers) {
        if (form == nullptr && holdsColumns(number))
            throw HostError(notOneNumber(number));
        if (NumberKind const kind = readNumber(number, form, read); kind != NumberKind::NUMBER)
            throw HostError(notANumber(number, kind) + (number == "-" ? ": '-' stands alone, for standard input" : ""));
    }
}

bool lookupArguments(Host& host, LookupOptions const& options, BAS::DateTime at) {
    Output out(STDOUT_FILENO);
    QuestionBatch batch(host.plugIn(), out, host.numbers(), options.style);
    for (std::string const& number : options.numbers)
        batch.add(number, at, options.method);
    batch.answer();
    out.flush();
    hintAtNormalise(batch);
    return batch.allFound();
}

// Now is read once, so that all questions without an instant mean the same one.
int lookup(LookupOptions const& options) {
    Configuration configuration = options.common.readConfiguration();
    DataClock const clock(configuration);
    BAS::DateTime const at = instantOf(options.at, clock, clock.now());
    bool const fromInput = options.numbers.size() == 1 && options.numbers.front() == "-";
    // A wrong number is told before the data are loaded; without dialling codes that needs no module, either.
    if (!fromInput && !options.style.normalise)
        checkNumbers(options.numbers, nullptr);
    Host host(std::move(configuration), options.common);
    if (!fromInput && options.style.normalise)
        checkNumbers(options.numbers, &host.numbers());
    host.start();
    bool const allFound = fromInput ? StreamLookup(host, options, clock, at).run() : lookupArguments(host, options, at);
    host.throwFailure(); // a look-up that ran out of memory is not "not found"
    return allFound ? FINE : NOT_FOUND;
}

void declareLookup(Arguments& arguments, CommonOptions& common) {
    auto const options = std::make_shared<LookupOptions>();
    addConfiguration(arguments, common).required();
    arguments.add("NUMBER", "...", options->numbers, "The numbers, or '-' alone for standard input").required();
    arguments.refuseLists("is not a number");
    addInstant(arguments, "--at", options->at);
    addMethod(arguments, options->method);
    arguments.flag("--normalise", options->style.normalise, "Take numbers as people write them");
    arguments.flag("--ported", options->style.ported, "Say in a last column whether the numbers are ported");
    arguments.footer(std::string(lookupHelpCM) + exitStatusHelpCM);
    arguments.runs([options, &common] {
        options->common = common;
        return lookup(*options);
    });
}

} // namespace

Command const lookupCommandCM = {"lookup", "Say to which network numbers belonged at an instant", declareLookup};

} // namespace nphost
