#include "host/import/ImportCommand.h"

#include "host/base/ExitStatus.h"
#include "host/base/HostError.h"
#include "host/base/Interruption.h"
#include "host/base/JsonWriter.h"
#include "host/base/StandardError.h"
#include "host/base/Text.h"
#include "host/config/DaemonFiles.h"
#include "host/fields/DataClock.h"
#include "host/fields/FieldOptions.h"
#include "host/import/FeedColumns.h"
#include "host/import/FeedConversion.h"
#include "host/module/Host.h"
#include "host/records/FileRoles.h"
#include "host/records/RecordInput.h"
#include "host/records/RecordOptions.h"
#include "host/records/RecordWriter.h"
#include "host/records/ResultTarget.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unistd.h>

namespace nphost {

namespace {

constexpr char const* helpCM =
    R"(Makes a data file of a feed: separated values, as they are or compressed by gzip or
zstd. COLUMN is a name of the feed's header or a position from 1. The records keep their
order. What cannot be a record is rejected with file, line and reason, and the rest is
written; the output is replaced only when the whole feed has been read. Output and
rejects are compressed if their names end in .gz or .zst.

Times: digits (YYYYMMDDHHMMSS), iso (ISO 8601), seconds or milliseconds since 1970, or a
pattern as strptime takes it, '%d/%m/%Y %H:%M'. Those with an offset are turned into the
clock time of --zone, which is the data's; those without stay as they are: one that
came twice when clocks were put back holds for both, one that they left out is moved
forward. The summary counts them.

Blanks inside the name of a network become an underscore. A record that is repeated is
written once. With --normalise numbers may be written as people do or as tel: and sip:
addresses, and are brought into stored form; without, only visual separators go.

Examples:
  nphost import --map number=msisdn,valid-from=since,network=operator --time-format iso \
      --zone Europe/Paris --normalise --config nphost.toml --output ported.dat feed.csv.gz
  zcat feed.txt.gz | nphost import --map number=1,valid-from=3,network=2 --no-header \
      --separator '|' --rejects rejects.csv - > ported.dat

Exit status:
  0  everything was taken
  1  some records were rejected, the rest is written; or more than --max-rejects, and no
     file but that of the rejects
  2  a usage, configuration or file error, networks that would become one, or no record
     left: no file is written; standard error says why. A summary (--json) that
     cannot be written is an error, too, but the files are in place)";

// Tells of rejected records: all in a file of comma-separated values, or the first on standard error.
class Rejects {
  public:
    Rejects(std::string file, std::optional<std::string> const& target) : fileM(std::move(file)) {
        if (target)
            targetM.emplace(*target).buffer() = "file,line,reason,detail,record\n";
    }

    void add(std::uint64_t line, Refusal refusal, std::string_view subject, std::string_view record) {
        begin(line, refusal, subject);
        addPart(record);
        end(refusal);
    }

    // The same for a record in parts.
    void begin(std::uint64_t line, Refusal refusal, std::string_view subject) {
        std::string detail = sentenceOf(refusal);
        if (!subject.empty())
            detail += ": '" + shortened(subject) + "'";
        // Without a file the first ones are shown as they come; how many there are is known only at the end.
        if (targetM)
            beginRow(line, refusal, detail);
        else if (totalM < shownCM)
            complain(fileM + ":" + std::to_string(line) + ": " + detail);
    }
    void addPart(std::string_view part) {
        if (!targetM)
            return;
        CsvWriter::appendInQuotes(targetM->buffer(), part);
        targetM->writeLarge();
    }
    void end(Refusal refusal) {
        if (targetM)
            targetM->buffer() += "\"\n";
        // Counted at its end, so that a record in pieces counts once.
        ++countsM[static_cast<std::size_t>(refusal)];
        ++totalM;
    }

    void sync() {
        if (targetM)
            targetM->sync();
        else if (totalM > shownCM)
            complain(fileM + ": " + std::to_string(totalM - shownCM) + " more rejected records; --rejects lists all");
    }
    void finish() {
        if (targetM)
            targetM->finish();
    }

    std::uint64_t total() const { return totalM; }
    std::array<std::uint64_t, refusalsCM> const& counts() const { return countsM; }

    // "most often bad-time: the time cannot be read"
    // With thousands of rejects the reason that most have is what must be mended.
    std::string mostFrequent() const {
        auto const most = static_cast<Refusal>(std::max_element(countsM.begin(), countsM.end()) - countsM.begin());
        return std::string("most often ") + nameOf(most) + ": " + sentenceOf(most);
    }

  private:
    static constexpr std::uint64_t shownCM = 20;

    void beginRow(std::uint64_t line, Refusal refusal, std::string_view detail) {
        std::string& row = targetM->buffer();
        beginRejectRow(row, fileM, line, nameOf(refusal));
        CsvWriter::appendField(row, detail, {});
        row += ",\"";
    }

    std::string fileM;
    std::optional<PieceTarget> targetM; // none: standard error
    std::array<std::uint64_t, refusalsCM> countsM{};
    std::uint64_t totalM = 0;
};

RecordFormat formatOf(ImportOptions const& options) {
    RecordFormat format;
    format.csv.separator = options.separator ? separatorOf(*options.separator) : separatorByName(options.file);
    format.csv.quotes = !options.noQuotes;
    format.header = !options.noHeader;
    format.jsonHint = " (JSON lines? a feed has separated values)";
    return format;
}

// One feed on its way into a data file.
class Import {
  public:
    Import(ImportOptions const& options, NumberForm const* form)
        : optionsM(options), columnsM(options.map), formatM(formatOf(options)), inputM({options.file}, formatM),
          conversionM(TimeReader(options.timeFormat, *options.zone), form) {}

    int run() {
        inputM.start();
        // A file of nothing would take all numbers away at the next reload: it is a failure, not a quiet day.
        if (inputM.isEmpty())
            throw HostError(inputM.nameOf(0) + ": the feed is empty");
        // Also a wrong column is told before anything is written.
        CsvReader reader(formatM.csv, columnsM.positions(inputM), inputM.fieldCount());
        // From here on there are temporary files, which a signal must not leave.
        Interruption const interruption(stopReadingM);
        Rejects rejects(inputM.nameOf(0), optionsM.rejects);
        writeAll(reader, rejects);
        optionsM.json ? tellJson(rejects) : tellText(rejects);
        return rejects.total() == 0 ? FINE : NOT_FOUND;
    }

  private:
    // All files are seen to the disk before the first is put in place.
    void writeAll(CsvReader& reader, Rejects& rejects) {
        // Beside the old file until all is well: an exception on the way leaves the old one as it was.
        PieceTarget target(optionsM.output);
        convertAll(reader, target, rejects);
        bool const whole = stoppedM.empty();
        // All rejected, or nothing but empty lines: a wrong column or separator far more often than an empty feed.
        if (whole && conversionM.counts().converted == 0)
            throw HostError(inputM.nameOf(0) + ": no record could be taken; nothing is written" +
                            (rejects.total() > 0
                                 ? "; rejected: " + std::to_string(rejects.total()) + ", " + rejects.mostFrequent()
                                 : "") +
                            inputM.hint());
        if (whole)
            target.sync();
        rejects.sync();
        Interruption::check();
        // Also when there were too many: it says why.
        rejects.finish();
        if (whole)
            target.finish();
    }

    void convertAll(CsvReader& reader, PieceTarget& target, Rejects& rejects) {
        // Without a progress line among the data of the same terminal.
        bool const onTerminal = !optionsM.output && isatty(STDOUT_FILENO) == 1;
        ProgressLine const progress(
            "nphost: importing", [this] { return reading(); }, !onTerminal);
        for (InputBlock block; stoppedM.empty() && inputM.next(block, stopReadingM);) {
            Interruption::check();
            if (block.block.piece() == RecordBlock::Piece::NONE)
                convertBlock(block, reader, target, rejects);
            else
                rejectPiece(block.block, rejects);
            // A block at a time: memory stays bounded, and a signal is obeyed between blocks.
            target.write();
        }
        Interruption::check();
    }

    ProgressLine::Reading reading() const { return {linesM.load(), inputM.done(), inputM.total()}; }

    void convertBlock(InputBlock const& input, CsvReader& reader, PieceTarget& target, Rejects& rejects) {
        // Without a header the count is known from the first good record on, and each block brings it along.
        reader.expectFields(input.fields);
        reader.begin(input.block.text(), input.block.firstLine());
        for (Record record; stoppedM.empty() && reader.next(record);) {
            if (record.text.empty() && record.problem == Problem::NONE)
                ++emptyLinesM;
            else
                convert(record, target, rejects);
            // For the progress line's thread.
            linesM.store(record.line, std::memory_order_relaxed);
        }
    }

    void convert(Record const& record, PieceTarget& target, Rejects& rejects) {
        ++recordsM;
        if (record.problem != Problem::NONE)
            rejects.add(record.line, refusalOf(record.problem), {}, record.text);
        else if (outcomeOf(record, target) == FeedConversion::Outcome::REFUSED)
            rejects.add(record.line, conversionM.refusal(), conversionM.subject(), record.text);
        checkRejects(rejects);
    }

    FeedConversion::Outcome outcomeOf(Record const& record, PieceTarget& target) {
        try {
            return conversionM.convert(record.values[FeedColumns::NUMBER], record.values[FeedColumns::VALID_FROM],
                                       record.values[FeedColumns::NETWORK], target.buffer());
        } catch (HostError const& error) {
            // Two networks' names fall together: the conversion does not know in which line.
            throw HostError(inputM.nameOf(0) + ":" + std::to_string(record.line) + ": " + error.what());
        }
    }

    // A line that is longer than a block is rejected as it comes, and counts when it is over.
    void rejectPiece(RecordBlock const& block, Rejects& rejects) {
        if (block.piece() == RecordBlock::Piece::FIRST)
            rejects.begin(block.firstLine(), Refusal::LONG_RECORD, {});
        Record piece;
        piece.text = block.text();
        // Only the last piece has the line's end, which is no part of the record.
        if (block.piece() == RecordBlock::Piece::LAST)
            setText(piece, block.text());
        rejects.addPart(piece.text);
        if (block.piece() != RecordBlock::Piece::LAST)
            return;
        ++recordsM;
        rejects.end(Refusal::LONG_RECORD);
        checkRejects(rejects);
    }

    void checkRejects(Rejects const& rejects) {
        // After each record: the one that crosses the limit is the last in the list.
        if (optionsM.maxRejects && rejects.total() > *optionsM.maxRejects)
            stoppedM =
                "more than " + std::to_string(*optionsM.maxRejects) + " rejected records, " + rejects.mostFrequent();
    }

    // Standard error, in one line for who watches; scripts read the JSON.
    void tellText(Rejects const& rejects) const {
        FeedConversion::Counts const& counts = conversionM.counts();
        std::string text = inputM.nameOf(0) + ": records " + std::to_string(recordsM);
        for (auto const& [what, count] :
             {std::pair(", written ", written()), std::pair(", networks ", std::uint64_t(conversionM.networks())),
              std::pair("; rejected ", rejects.total()), std::pair(", repeated ", counts.repeated),
              std::pair(", empty lines ", emptyLinesM), std::pair(", ambiguous times ", counts.ambiguous),
              std::pair(", impossible times ", counts.impossible)})
            text += what + std::to_string(count);
        complain(text);
        if (!stoppedM.empty())
            complain(inputM.nameOf(0) + ": stopped: " + stoppedM + "; " +
                     (optionsM.output ? visible(*optionsM.output) + " is not written" : "what was written is not all"));
    }

    // An output that is not put in place has none.
    std::uint64_t written() const { return optionsM.output && !stoppedM.empty() ? 0 : conversionM.counts().converted; }

    void tellJson(Rejects const& rejects) const {
        FeedConversion::Counts const& counts = conversionM.counts();
        std::map<std::string_view, std::uint64_t> reasons;
        for (std::size_t i = 0; i < refusalsCM; ++i)
            if (rejects.counts()[i] > 0)
                reasons[nameOf(static_cast<Refusal>(i))] = rejects.counts()[i];
        std::string text;
        JsonWriter json(text);
        json.beginObject()
            .member("ambiguousTimes", counts.ambiguous)
            .member("complete", stoppedM.empty())
            .member("emptyLines", emptyLinesM)
            .member("file", optionsM.file == "-" ? "standard input" : optionsM.file)
            .member("impossibleTimes", counts.impossible)
            .member("networks", conversionM.networks())
            .member("output", optionsM.output.value_or("standard output"))
            .member("records", recordsM)
            .member("rejected", rejects.total())
            .member("rejectedByReason", reasons)
            .member("repeated", counts.repeated);
        if (!stoppedM.empty())
            json.member("stopped", stoppedM);
        json.member("written", written()).endObject();
        writeSummaryOf(optionsM.output, stoppedM.empty(), text + "\n");
    }

    ImportOptions const& optionsM;
    FeedColumns columnsM;
    RecordFormat formatM;
    RecordInput inputM;
    FeedConversion conversionM;
    std::atomic<bool> stopReadingM{false};
    std::string stoppedM; // why, before the end of the feed
    std::uint64_t recordsM = 0;
    std::uint64_t emptyLinesM = 0;
    std::atomic<std::uint64_t> linesM{0};
};

void checkFiles(ImportOptions const& options, Configuration const& configuration) {
    FileRoles{{options.file},
              options.output,
              options.rejects,
              {{options.common.configuration, "the configuration file"},
               {configuration.of<DaemonFiles>().logFile, "the daemon's log"},
               {configuration.dataFile(), "the data file", true}}}
        .check();
}

int importChecked(ImportOptions options) {
    options.output = fileOf(options.output);
    bool const isConfigured = !options.common.configuration.empty();
    if (options.normalise && !isConfigured)
        throw HostError("--normalise needs --config FILE, for the dialling codes");
    Configuration configuration = isConfigured ? options.common.readConfiguration() : Configuration();
    if (!options.zone)
        options.zone = configuration.of<DataClock::Settings>().zone;
    checkFiles(options, configuration);
    if (!options.normalise)
        return Import(options, nullptr).run();
    // The module wants to open its data file, which may not be there yet: the configuration file is, and nothing is
    // loaded.
    configuration.useDataFile(options.common.configuration.string());
    Host const host(std::move(configuration), options.common);
    return Import(options, &host.numbers()).run();
}

} // namespace

int importFeed(ImportOptions const& options) {
    return importChecked(options);
}

namespace {

void declare(Arguments& arguments, CommonOptions& common) {
    auto const options = std::make_shared<ImportOptions>();
    arguments.add("FILE", " ", options->file, "The feed, or '-' for standard input").required().named();
    arguments.add("--map", "MAP", options->map, "number=COLUMN,valid-from=COLUMN,network=COLUMN (required)").required();
    addSeparation(arguments, options->separator, options->noHeader, options->noQuotes);
    addTimeForm(arguments, options->timeFormat, options->zone);
    addNormalise(arguments, options->normalise, "; needs --config");
    addConfiguration(arguments, common, "The configuration file with the dialling codes");
    arguments.add("-o,--output", "FILE", options->output, "The data file to write; default: standard output").named();
    arguments
        .add("--rejects", "FILE", options->rejects, "List rejected records here: file, line, reason, detail, record")
        .named();
    arguments.add("--max-rejects", "N", options->maxRejects, "Stop, and write no data, when more are rejected").count();
    arguments.flag("--json", options->json,
                   "The summary as one JSON object, on standard output with --output, else on standard error");
    arguments.footer(helpCM);
    arguments.runs([options, &common] {
        options->common = common;
        return importFeed(*options);
    });
}

} // namespace

Command const importCommandCM = {"import", "Make a data file of an operator's feed", declare};

} // namespace nphost
