#include "host/lookup/LookupCommand.h"

#include "host/base/ExitStatus.h"
#include "host/base/HostError.h"
#include "host/base/Instant.h"
#include "host/base/Output.h"
#include "host/base/StandardError.h"
#include "host/base/Text.h"
#include "host/fields/Numbers.h"
#include "host/fields/QuestionLine.h"
#include "host/lookup/QuestionBatch.h"
#include "host/records/LineInput.h"

#include <atomic>
#include <sys/stat.h>
#include <unistd.h>

namespace nphost {

namespace {

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

class StreamLookup {
  public:
    StreamLookup(Host& host, LookupOptions const& options, BAS::DateTime at)
        : outM(STDOUT_FILENO), batchM(host.plugIn(), outM, host.numbers(), options.normalise),
          inM(STDIN_FILENO, [this] { answerAll(); }), atM(at), methodM(options.method), normaliseM(options.normalise) {}

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
        BAS::DateTime const at = question.instant.empty() ? atM : parseInstant(question.instant);
        std::optional<unsigned int> const method = question.method.empty() ? methodM : methodOfColumn(question.method);
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

    void reject(QuestionLine const& question, char const* reason, std::string_view what) {
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
    QuestionBatch batch(host.plugIn(), out, host.numbers(), options.normalise);
    for (std::string const& number : options.numbers)
        batch.add(number, at, options.method);
    batch.answer();
    out.flush();
    hintAtNormalise(batch);
    return batch.allFound();
}

} // namespace

int lookup(LookupOptions const& options) {
    BAS::DateTime const at = instantOf(options.at, BAS::DateTime::now());
    bool const fromInput = options.numbers.size() == 1 && options.numbers.front() == "-";
    if (!fromInput && !options.normalise)
        checkNumbers(options.numbers, nullptr);
    Host host(readConfiguration(options.common.configuration), options.common);
    if (!fromInput && options.normalise)
        checkNumbers(options.numbers, &host.numbers());
    host.start();
    bool const allFound = fromInput ? StreamLookup(host, options, at).run() : lookupArguments(host, options, at);
    host.throwFailure(); // a look-up that ran out of memory is not "not found"
    return allFound ? FINE : NOT_FOUND;
}

} // namespace nphost
