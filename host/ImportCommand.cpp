#include "host/ImportCommand.h"

#include "framework/STR/FileIo.h"
#include "host/ExitStatus.h"
#include "host/FeedColumns.h"
#include "host/FeedConversion.h"
#include "host/HostError.h"
#include "host/Output.h"
#include "host/RecordInput.h"
#include "host/SameFile.h"
#include "host/StandardError.h"
#include "host/Text.h"

#include <array>
#include <atomic>
#include <memory>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace nphost {

namespace {

constexpr char const* standardOutputCM = "/dev/stdout";

// A file that is written in large pieces, and replaced only by close.
class Target {
  public:
    explicit Target(std::string const& name) : nameM(name), fileM(name, std::ios_base::out) { check(fileM.isOpen()); }

    void append(std::string_view text) {
        bufferM += text;
        if (bufferM.size() > sizeCM)
            flush();
    }
    std::string& buffer() { return bufferM; }
    void flush() {
        check(static_cast<bool>(fileM.stream().write(bufferM.data(), static_cast<std::streamsize>(bufferM.size()))));
        bufferM.clear();
    }
    void close() {
        flush();
        check(fileM.closeFile());
    }

  private:
    static constexpr std::size_t sizeCM = 256UL * 1024;

    void check(bool done) {
        if (!done)
            throw HostError(visible(nameM) + " cannot be written: " +
                            (fileM.closeFile(), fileM.failure().str())); // the reason is complete after closeFile
    }

    std::string nameM;
    STR::FileIo fileM;
    std::string bufferM;
};

// Appends one value of a line of comma-separated values.
void appendQuoted(std::string& out, std::string_view value) {
    if (value.find_first_of(",\"\r\n") == std::string_view::npos) {
        out += value;
        return;
    }
    out += '"';
    for (char const c : value)
        out.append(c == '"' ? 2 : 1, c);
    out += '"';
}

// Tells of rejected records: all in a file of comma-separated values, or the first on standard error.
class Rejects {
  public:
    Rejects(std::string file, std::string const& target)
        : fileM(std::move(file)), targetM(target.empty() ? nullptr : std::make_unique<Target>(target)) {
        if (targetM)
            targetM->append("file,line,reason,detail,record\n");
    }

    void add(std::uint64_t line, Refusal refusal, std::string_view subject, std::string_view record) {
        ++countsM[static_cast<std::size_t>(refusal)];
        ++totalM;
        std::string detail = sentenceOf(refusal);
        if (!subject.empty())
            detail += ": '" + shortened(subject) + "'";
        if (targetM)
            list(line, refusal, detail, record);
        else if (totalM <= shownCM)
            complain(fileM + ":" + std::to_string(line) + ": " + detail);
    }

    void close() {
        if (targetM)
            targetM->close();
        else if (totalM > shownCM)
            complain(fileM + ": " + std::to_string(totalM - shownCM) + " more rejected records; --rejects lists all");
    }

    std::uint64_t total() const { return totalM; }
    std::array<std::uint64_t, refusalsCM> const& counts() const { return countsM; }

  private:
    static constexpr std::uint64_t shownCM = 20;

    void list(std::uint64_t line, Refusal refusal, std::string_view detail, std::string_view record) {
        std::string text;
        appendQuoted(text, fileM);
        text.append(",").append(std::to_string(line)).append(",").append(nameOf(refusal)).append(",");
        appendQuoted(text, detail);
        text += ',';
        appendQuoted(text, record);
        targetM->append(text += '\n');
    }

    std::string fileM;
    std::unique_ptr<Target> targetM; // null: standard error
    std::array<std::uint64_t, refusalsCM> countsM{};
    std::uint64_t totalM = 0;
};

char separatorOf(std::string const& text) {
    if (text == "tab" || text == "\\t")
        return '\t';
    if (text.size() != 1 || std::string_view("\"\r\n").find(text) != std::string_view::npos)
        throw HostError("'" + shortened(text) + "' is no separator; write one character, or tab");
    return text.front();
}

RecordFormat formatOf(ImportOptions const& options) {
    RecordFormat format;
    format.csv.separator = separatorOf(options.separator);
    format.csv.quotes = !options.noQuotes;
    format.header = !options.noHeader;
    return format;
}

// One feed on its way into a data file.
class Import {
  public:
    Import(ImportOptions const& options, std::optional<NumberForm> numbers)
        : optionsM(options), columnsM(options.map), inputM({options.file}, formatOf(options)),
          conversionM(TimeReader(options.timeFormat, options.zone), std::move(numbers)),
          rejectsM(inputM.nameOf(0), options.rejects) {}

    void run() {
        try {
            convertAll();
        } catch (...) {
            closeAfterFailure();
            throw;
        }
        rejectsM.close();
    }

    void tell() const { optionsM.json ? tellJson() : tellText(); }
    bool isClean() const { return rejectsM.total() == 0; }

  private:
    // What was rejected so far may say why. Without any, a list of an earlier feed stays.
    void closeAfterFailure() {
        try {
            if (rejectsM.total() > 0)
                rejectsM.close();
        } catch (HostError const& error) {
            complain(error.what());
        }
    }

    void convertAll() {
        inputM.start();
        if (inputM.fieldCount() == 0)
            throw HostError(inputM.nameOf(0) + ": the feed is empty");
        CsvReader reader(formatOf(optionsM).csv,
                         columnsM.positions(inputM.columns(), inputM.fieldCount(), inputM.nameOf(0)),
                         inputM.fieldCount());
        Target target(optionsM.output);
        {
            bool const onTerminal = optionsM.output == standardOutputCM && isatty(STDOUT_FILENO) == 1;
            ProgressLine const progress(
                "nphost: importing", [this] { return reading(); }, !onTerminal);
            std::atomic<bool> const never{false};
            for (InputBlock block; inputM.next(block, never);)
                convertBlock(block.block, reader, target);
        }
        if (conversionM.counts().converted == 0)
            throw HostError(inputM.nameOf(0) + ": no record could be taken; nothing is written");
        target.close();
    }

    ProgressLine::Reading reading() const { return {linesM.load(), inputM.done(), inputM.total()}; }

    void convertBlock(RecordBlock const& block, CsvReader& reader, Target& target) {
        if (block.piece() != RecordBlock::Piece::NONE)
            return takePiece(block);
        reader.begin(block.text(), block.firstLine());
        for (Record record; reader.next(record);) {
            convert(record, target);
            linesM.store(record.line, std::memory_order_relaxed);
        }
        target.flush();
    }

    void takePiece(RecordBlock const& block) {
        if (block.piece() == RecordBlock::Piece::FIRST)
            reject(block.firstLine(), Refusal::LONG_RECORD, {}, block.text().substr(0, shownBytesCM));
    }

    void convert(Record const& record, Target& target) {
        if (record.problem != Problem::NONE)
            return reject(record.line, refusalOf(record.problem), {}, record.text);
        if (record.text.empty()) {
            ++emptyLinesM;
            return;
        }
        FeedConversion::Outcome const outcome =
            conversionM.convert(record.values[FeedColumns::NUMBER], record.values[FeedColumns::VALID_FROM],
                                record.values[FeedColumns::NETWORK], target.buffer());
        if (outcome == FeedConversion::Outcome::REFUSED)
            reject(record.line, conversionM.refusal(), conversionM.subject(), record.text);
    }

    void reject(std::uint64_t line, Refusal refusal, std::string_view subject, std::string_view record) {
        rejectsM.add(line, refusal, subject, record);
        if (optionsM.maxRejects && rejectsM.total() > *optionsM.maxRejects)
            throw HostError(inputM.nameOf(0) + ": more records are rejected than the " +
                            std::to_string(*optionsM.maxRejects) + " allowed; " + fate());
    }

    // What the output has come to when an import breaks off.
    std::string fate() const {
        return optionsM.output == standardOutputCM ? "what was written is not all"
                                                   : visible(optionsM.output) + " is not written";
    }

    void tellText() const {
        FeedConversion::Counts const& counts = conversionM.counts();
        std::string text = inputM.nameOf(0) + ": records " + std::to_string(counts.converted);
        for (auto const& [what, count] :
             {std::pair(", networks ", static_cast<std::uint64_t>(conversionM.networks())),
              std::pair("; rejected ", rejectsM.total()), std::pair(", repeated ", counts.repeated),
              std::pair(", empty lines ", emptyLinesM), std::pair(", ambiguous times ", counts.ambiguous),
              std::pair(", impossible times ", counts.impossible)})
            text += what + std::to_string(count);
        complain(text);
    }

    void tellJson() const {
        FeedConversion::Counts const& counts = conversionM.counts();
        nlohmann::json reasons = nlohmann::json::object();
        for (std::size_t i = 0; i < refusalsCM; ++i)
            reasons[nameOf(static_cast<Refusal>(i))] = rejectsM.counts()[i];
        nlohmann::json const object = {{"file", asUtf8(optionsM.file)},      {"output", asUtf8(optionsM.output)},
                                       {"records", counts.converted},        {"networks", conversionM.networks()},
                                       {"repeated", counts.repeated},        {"emptyLines", emptyLinesM},
                                       {"ambiguousTimes", counts.ambiguous}, {"impossibleTimes", counts.impossible},
                                       {"rejected", rejectsM.total()},       {"rejectedBy", reasons}};
        Output out(optionsM.output == standardOutputCM ? STDERR_FILENO : STDOUT_FILENO);
        out.append(object.dump() + "\n");
        out.flush();
    }

    ImportOptions const& optionsM;
    FeedColumns columnsM;
    RecordInput inputM;
    FeedConversion conversionM;
    Rejects rejectsM;
    std::uint64_t emptyLinesM = 0;
    std::atomic<std::uint64_t> linesM{0};
};

void checkFiles(ImportOptions const& options) {
    bool const fromFile = options.file != "-";
    if (fromFile && isSameFile(options.file, options.output))
        throw HostError("the output " + visible(options.output) + " is the feed itself");
    if (options.rejects.empty())
        return;
    if (isSameFile(options.rejects, options.output) || (fromFile && isSameFile(options.rejects, options.file)))
        throw HostError("the file of rejects " + visible(options.rejects) + " is the output or the feed");
}

int importWith(ImportOptions const& options, std::optional<NumberForm> numbers) {
    Import feed(options, std::move(numbers));
    feed.run();
    feed.tell();
    return feed.isClean() ? FINE : NOT_FOUND;
}

// The module wants to open its data file, which may not be there yet: the configuration file is, and nothing is loaded.
Configuration withoutData(std::filesystem::path const& file) {
    Configuration configuration = readConfiguration(file);
    configuration.useDataFile(file.string());
    return configuration;
}

} // namespace

int importFeed(ImportOptions const& options) {
    checkFiles(options);
    if (!options.normalise)
        return importWith(options, std::nullopt);
    if (options.common.configuration.empty())
        throw HostError("--normalise needs --config FILE, for the dialling codes");
    Configuration configuration = withoutData(options.common.configuration);
    DiallingCodes const codes = diallingCodesOf(configuration);
    Host host(std::move(configuration), options.common);
    return importWith(options, NumberForm(codes, [&host](BAS::String& number) { host.plugIn().normalize(number); }));
}

} // namespace nphost
