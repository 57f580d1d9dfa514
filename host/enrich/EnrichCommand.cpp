#include "host/enrich/EnrichCommand.h"

#include "host/base/ExitStatus.h"
#include "host/base/HostError.h"
#include "host/base/Interruption.h"
#include "host/base/StandardError.h"
#include "host/base/Text.h"
#include "host/config/DaemonFiles.h"
#include "host/enrich/EnrichPipeline.h"
#include "host/fields/DataClock.h"
#include "host/fields/FieldOptions.h"
#include "host/fields/NetworkTable.h"
#include "host/module/Host.h"
#include "host/records/FileRoles.h"
#include "host/records/RecordOptions.h"
#include "host/records/ResultTarget.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace nphost {

namespace {

constexpr char const* helpCM =
    R"(Writes the records as they came, in their order, with COLUMN_network added for each
number: the network that it belonged to at the record's time; empty (in NDJSON null)
when no record of the data holds, or there is no number.

Formats: CSV with quoting as in RFC 4180, any separator of one byte, NDJSON; by the
name of the first input unless --format says otherwise. Inputs may be gzip or zstd,
whatever their names; the output is compressed if its name ends in .gz or .zst.
COLUMN is a name of the header, or a number from 1; of NDJSON a member's name.

Times: digits (YYYYMMDDHHMMSS), iso (ISO 8601, date and time, with or without an offset),
seconds or milliseconds since 1970, or a pattern as for strptime. --zone is the zone of
the data; times without an offset are taken to be in it: one that came twice when
clocks were put back holds for both, one that they left out is moved forward. The
summary counts them.

Records that cannot be used go whole to the rejects, a CSV file with the columns file,
line, reason and record: that of --rejects, or with --output FILE to FILE.rejects.
Without either, or with --keep, they stay in the output: in CSV with empty fields, in
NDJSON with nulls, but what is no object, or has a name to be added, as it is.

Examples:
  nphost enrich --config examples/nphost.toml --number caller --number called
      --time start --normalise --output calls-with-networks.csv calls.csv
  zcat calls.gz | nphost enrich --config examples/nphost.toml --no-header
      --number 2 --time 1 --keep > enriched.csv

Exit status:
  0  every record could be used; numbers that were not found are counted, no more
  1  records were rejected, or stayed unused in the output; or there were more than
     --max-rejects, and the output file is as it was
  2  a usage, configuration or file error; one line on standard error says which. A
     summary (--json) that cannot be written is one, too, but the files are in place)";

struct EnrichOptions {
    CommonOptions common;
    std::vector<std::string> inputs; // none: standard input, as "-"
    std::vector<std::string> numbers;
    std::string time;
    std::string timeFormat = "digits";
    std::optional<std::string> zone; // none: as configured
    std::string format;              // csv, tsv, ndjson; empty: by the first input's name
    std::optional<std::string> separator;
    std::vector<std::string> added; // empty: the network
    std::optional<unsigned int> method;
    std::optional<std::string> output;  // none, and its names: standard output
    std::optional<std::string> rejects; // none: OUTPUT.rejects, or none if they stay in the output
    std::optional<std::uint64_t> maxRejects;
    unsigned int threads = 0; // 0: one a processor
    bool noHeader = false;
    bool noQuotes = false;
    bool normalise = false;
    bool keep = false;
    bool json = false;        // the summary, where the records do not go: standard output, else standard error
    bool passThrough = false; // everything but the look-up, to measure what it costs
};

// The first name speaks for all inputs, which must be of one format anyway.
std::string formatName(EnrichOptions const& options) {
    if (!options.format.empty())
        return options.format;
    std::string_view const name = withoutSuffix(options.inputs.front());
    auto const endsInOne = [name](auto... suffixes) { return (name.ends_with(suffixes) || ...); };
    return endsInOne(".ndjson", ".jsonl", ".json") ? "ndjson" : "csv";
}

char separatorOf(EnrichOptions const& options) {
    if (options.separator)
        return nphost::separatorOf(*options.separator);
    return options.format.empty() ? separatorByName(options.inputs.front()) : options.format == "tsv" ? '\t' : ',';
}

RecordFormat formatOf(EnrichOptions const& options) {
    std::string const name = formatName(options);
    RecordFormat format;
    format.kind = name == "ndjson" ? RecordFormat::Kind::JSON : RecordFormat::Kind::CSV;
    // Silently passed over, they would leave their user to believe that they have been heard.
    if (format.kind == RecordFormat::Kind::JSON && (options.separator || options.noHeader || options.noQuotes))
        throw HostError("--separator, --no-header and --no-quotes have no meaning for NDJSON");
    format.csv = {separatorOf(options), !options.noQuotes};
    format.header = !options.noHeader;
    format.jsonHint = " (JSON lines? --format ndjson)";
    return format;
}

WantedColumns wantedOf(EnrichOptions const& options) {
    WantedColumns wanted{options.time, options.numbers, {}};
    for (std::string const& name : options.added) {
        std::optional<Added> const added = addedOf(name);
        if (!added)
            throw HostError("--add: '" + shortened(name) + "' is not one of " + addedNames());
        if (std::find(wanted.added.begin(), wanted.added.end(), *added) != wanted.added.end())
            throw HostError("--add names '" + name + "' twice");
        wanted.added.push_back(*added);
    }
    // The network is what enrich is for: it is added also when others are asked for, and then first.
    if (std::find(wanted.added.begin(), wanted.added.end(), Added::NETWORK) == wanted.added.end())
        wanted.added.insert(wanted.added.begin(), Added::NETWORK);
    return wanted;
}

// None where nothing of it is wanted.
std::optional<NetworkTable> tableOf(WantedColumns const& wanted, Configuration const& configuration,
                                    std::filesystem::path const& name) {
    if (std::none_of(wanted.added.begin(), wanted.added.end(), isOfTable))
        return std::nullopt;
    std::filesystem::path const file = configuration.of<NetworkTable::Settings>().file;
    if (file.empty())
        throw HostError(visible(name.native()) +
                        ": there is no key 'networks' in [host], which --add needs for what is known of networks");
    return NetworkTable::read(file);
}

bool isPipeOrDevice(std::string const& file) {
    std::error_code error;
    auto const status = std::filesystem::status(file, error);
    return std::filesystem::is_other(status); // a folder is refused in any case
}

// With what follows from the options: records that cannot be used stay in the output, or go to a file beside it.
EnrichOptions completed(EnrichOptions options) {
    options.output = fileOf(options.output);
    if (options.rejects || options.keep)
        return options;
    if (!options.output) {
        options.keep = true; // else they would be lost
        return options;
    }
    if (isPipeOrDevice(*options.output))
        throw HostError(visible(*options.output) + " is no regular file: say where records go that cannot be used, by "
                                                   "--rejects FILE, or by --keep to leave them in the output");
    options.rejects = *options.output + ".rejects";
    return options;
}

// Without columns the input has no header, and none is made up.
std::string headerOf(EnrichPlan const& plan, RecordInput const& input) {
    std::string header = input.header();
    if (input.columns().empty())
        return header;
    for (std::string const& name : plan.names()) {
        header += plan.format().csv.separator;
        if (!CsvWriter::appendField(header, name, plan.format().csv))
            throw HostError("the column '" + shortened(name) + "' cannot be added: its name holds the separator");
    }
    return header + input.headerEnd();
}

// One run, from the opened input to the summary.
class EnrichRun {
  public:
    EnrichRun(EnrichOptions const& options, EnrichContext const& context, RecordInput& input, Host& host)
        : optionsM(options), contextM(context), inputM(input), hostM(host),
          pipelineM(context, input, headerOf(context.plan, input),
                    // The library says 0 where it does not know how many processors there are.
                    options.threads > 0 ? options.threads : std::max(1U, std::thread::hardware_concurrency())) {}

    int run() {
        // Without look-ups no data are needed.
        if (!optionsM.passThrough)
            hostM.start(); // a signal ends it as it stands: there is no temporary file yet
        {
            Interruption const interruption(pipelineM.stopReading());
            writeAll();
        }
        // From here on nothing is left to remove, and signals act as ever again.
        pipelineM.addNetworks(summaryM.networks);
        optionsM.json ? writeSummaryOf(optionsM.output, summaryM.stopped.empty(), summaryM.json()) : tellText();
        return summaryM.counts.rejected() == 0 ? FINE : NOT_FOUND;
    }

  private:
    using Clock = std::chrono::steady_clock;

    // All files are seen to the disk before the first is put in place.
    void writeAll() {
        ResultTarget output(optionsM.output);
        std::optional<PieceTarget> rejects;
        if (optionsM.rejects)
            // Written also when nothing is rejected: rejects of an earlier run must not stay there.
            rejects.emplace(*optionsM.rejects).buffer() = rejectsHeaderCM;
        enrichAll(output, rejects);
        if (!writtenM)
            output.write(emptyOutput());
        bool const whole = summaryM.stopped.empty();
        if (whole)
            output.sync();
        if (rejects)
            rejects->sync();
        // The last look at signals: from here on the work is done, and stays done.
        Interruption::check();
        if (rejects)
            // Before the output: who sees the new output finds its rejects beside it.
            rejects->finish();
        if (whole)
            output.finish();
    }

    void enrichAll(ResultTarget& output, std::optional<PieceTarget>& rejects) {
        Clock::time_point const start = Clock::now();
        {
            // Not among the records of the same terminal.
            ProgressLine const progress("nphost: enriching", progressSource(),
                                        optionsM.output || isatty(STDOUT_FILENO) != 1);
            // On this thread, the main one, whose writes a signal breaks off.
            pipelineM.run([&](EnrichJob const& job) { return take(job, output, rejects); });
        }
        summaryM.seconds = std::chrono::duration<double>(Clock::now() - start).count();
        summaryM.kept = optionsM.keep;
        // A signal makes reading end early, and that must not pass for the end of the input.
        Interruption::check();
        hostM.throwFailure(); // a look-up that ran out of memory is not "not found"
    }

    // False when there are too many rejects.
    bool take(EnrichJob const& job, ResultTarget& output, std::optional<PieceTarget>& rejects) {
        Interruption::check();
        if (rejects) {
            rejects->buffer() += job.rejects;
            rejects->writeLarge();
        }
        if (!job.output.empty()) {
            output.write(job.output);
            writtenM = true;
        }
        // Counted when it is written: blocks behind the last one that was taken may have been read, and are not told.
        summaryM.counts += job.counts;
        summaryM.addUnreadable(job.unreadable);
        // For the progress line, whose thread must not touch the summary.
        recordsM.store(summaryM.counts.records, std::memory_order_relaxed);
        foundM.store(summaryM.counts.found, std::memory_order_relaxed);
        rejectedM.store(summaryM.counts.rejected(), std::memory_order_relaxed);
        if (optionsM.maxRejects && summaryM.counts.rejected() > *optionsM.maxRejects)
            summaryM.stopped = "more than " + std::to_string(*optionsM.maxRejects) + " rejected records";
        return summaryM.stopped.empty();
    }

    // Of a compressed file, nothing is not no byte.
    std::string emptyOutput() const {
        std::string place;
        return std::string(Compressor(contextM.compression).compress({}, place));
    }

    ProgressLine::Source progressSource() {
        return [this] {
            return ProgressLine::Reading{recordsM, inputM.done(), inputM.total(), "records",
                                         std::to_string(foundM) + " found, " + std::to_string(rejectedM) + " rejected"};
        };
    }

    // On standard error: standard output may have the records.
    void tellText() const {
        StandardError::write(summaryM.text());
        if (optionsM.rejects && summaryM.counts.rejected() > 0)
            complain("the rejected records are in " + visible(*optionsM.rejects));
        if (!summaryM.stopped.empty())
            complain("stopped: " + summaryM.stopped +
                     (optionsM.output ? "; " + visible(*optionsM.output) + " is not written"
                                      : "; what was written is not all"));
    }

    EnrichOptions const& optionsM;
    EnrichContext const& contextM;
    RecordInput& inputM;
    Host& hostM;
    EnrichPipeline pipelineM;
    EnrichSummary summaryM;
    bool writtenM = false;
    std::atomic<std::uint64_t> recordsM{0}; // for the progress line
    std::atomic<std::uint64_t> foundM{0};
    std::atomic<std::uint64_t> rejectedM{0};
};

int enrichCompleted(EnrichOptions const& options) {
    // What the options alone tell is judged first, before any file is read.
    RecordFormat const format = formatOf(options);
    WantedColumns const wanted = wantedOf(options);
    Configuration configuration = options.common.readConfiguration();
    TimeReader const times(options.timeFormat, options.zone.value_or(configuration.of<DataClock::Settings>().zone));
    std::optional<NetworkTable> const networks = tableOf(wanted, configuration, options.common.configuration);
    // Before anything is opened: an output that is an input would take its place.
    FileRoles{options.inputs,
              options.output,
              options.rejects,
              {{configuration.dataFile(), "the data file itself"},
               {options.common.configuration, "the configuration file"},
               {configuration.of<DaemonFiles>().logFile, "the daemon's log"}}}
        .check();
    // Up to the run nothing is loaded: a wrong column, format or file is told at once, not after the load.
    Host host(std::move(configuration), options.common);
    RecordInput input(options.inputs, format);
    input.start();
    EnrichPlan const plan(wanted, format, input);
    EnrichContext const context{host.plugIn(),
                                plan,
                                input,
                                times,
                                networks ? &*networks : nullptr,
                                options.normalise ? &host.numbers() : nullptr,
                                options.method,
                                options.method.value_or(host.plugIn().serviceStatus().searchMethod),
                                options.output ? compressionOfName(*options.output) : Compression::NONE,
                                options.passThrough,
                                options.keep,
                                options.rejects.has_value()};
    return EnrichRun(options, context, input, host).run();
}

int enrich(EnrichOptions const& options) {
    return enrichCompleted(completed(options));
}

void declareOutput(Arguments& arguments, EnrichOptions& options) {
    arguments.add("-o,--output", "FILE", options.output, "The file to write; default: standard output").named();
    arguments
        .add("--add", "LIST", options.added,
             "valid-from, prefix, next-change, method, ported; of [host] networks: network-name, mcc, mnc, rn, "
             "rn-context")
        .separatedBy(',')
        .single();
    arguments
        .add("--rejects", "FILE", options.rejects,
             "Where records go that cannot be used; with --output, its name and .rejects")
        .named();
    arguments.flag("--keep", options.keep,
                   "Leave records that cannot be used in the output; with --rejects list them, too");
    arguments
        .add("--max-rejects", "N", options.maxRejects, "Stop after more of them than this, and write no output file")
        .count();
    arguments.add("--threads", "N", options.threads, "Threads that look up; default: one a processor").between(1, 1024);
    arguments.flag("--json", options.json,
                   "The summary as one JSON object, on standard output with --output, else on standard error");
    arguments.flag("--pass-through", options.passThrough, "Everything but the look-up, to measure what it costs");
}

void declare(Arguments& arguments, CommonOptions& common) {
    auto const options = std::make_shared<EnrichOptions>();
    addConfiguration(arguments, common).required();
    arguments.add("INPUT", "...", options->inputs, "The files; default, and '-': standard input");
    arguments.refuseLists("is in brackets, as a list would be; a file of that name needs ./ before it");
    arguments.add("--number", "COLUMN", options->numbers, "A column with numbers; may be given again (required)")
        .single()
        .required();
    arguments.add("--time", "COLUMN", options->time, "The column with the time (required)").required();
    addTimeForm(arguments, options->timeFormat, options->zone);
    arguments
        .add("--format", "FORMAT", options->format, "csv, tsv or ndjson; default: by the first input's name, or csv")
        .among({"csv", "tsv", "ndjson"});
    addSeparation(arguments, options->separator, options->noHeader, options->noQuotes);
    addNormalise(arguments, options->normalise);
    addMethod(arguments, options->method);
    declareOutput(arguments, *options);
    arguments.footer(helpCM);
    arguments.runs([options, &common] {
        options->common = common;
        if (options->inputs.empty())
            options->inputs = {"-"};
        return enrich(*options);
    });
}

} // namespace

Command const enrichCommandCM = {"enrich", "Add to call records the networks of their numbers", declare};

} // namespace nphost
