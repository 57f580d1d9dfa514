#include "host/enrich/EnrichCommand.h"

#include "host/base/ExitStatus.h"
#include "host/base/HostError.h"
#include "host/base/Interruption.h"
#include "host/base/StandardError.h"
#include "host/base/Text.h"
#include "host/enrich/EnrichPipeline.h"
#include "host/records/FileRoles.h"
#include "host/records/ResultTarget.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>
#include <unistd.h>

namespace nphost {

namespace {

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
            throw HostError("--add: '" + shortened(name) +
                            "' is not one of network, valid-from, prefix, next-change and method");
        if (std::find(wanted.added.begin(), wanted.added.end(), *added) != wanted.added.end())
            throw HostError("--add names '" + name + "' twice");
        wanted.added.push_back(*added);
    }
    if (std::find(wanted.added.begin(), wanted.added.end(), Added::NETWORK) == wanted.added.end())
        wanted.added.insert(wanted.added.begin(), Added::NETWORK);
    return wanted;
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
                    options.threads > 0 ? options.threads : std::max(1U, std::thread::hardware_concurrency())) {}

    int run() {
        if (!optionsM.passThrough)
            hostM.start(); // a signal ends it as it stands: there is no temporary file yet
        {
            Interruption const interruption(pipelineM.stopReading());
            writeAll();
        }
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
            rejects.emplace(*optionsM.rejects).buffer() = rejectsHeaderCM;
        enrichAll(output, rejects);
        if (!writtenM)
            output.write(emptyOutput());
        bool const whole = summaryM.stopped.empty();
        if (whole)
            output.sync();
        if (rejects)
            rejects->sync();
        Interruption::check();
        if (rejects)
            rejects->finish();
        if (whole)
            output.finish();
    }

    void enrichAll(ResultTarget& output, std::optional<PieceTarget>& rejects) {
        Clock::time_point const start = Clock::now();
        {
            ProgressLine const progress("nphost: enriching", progressSource(),
                                        optionsM.output || isatty(STDOUT_FILENO) != 1);
            pipelineM.run([&](EnrichJob const& job) { return take(job, output, rejects); });
        }
        summaryM.seconds = std::chrono::duration<double>(Clock::now() - start).count();
        summaryM.kept = optionsM.keep;
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
        summaryM.counts += job.counts;
        summaryM.addUnreadable(job.unreadable);
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
    RecordFormat const format = formatOf(options);
    WantedColumns const wanted = wantedOf(options);
    TimeReader const times(options.timeFormat, options.zone);
    Configuration configuration = readConfiguration(options.common.configuration);
    FileRoles{options.inputs,
              options.output,
              options.rejects,
              {{configuration.dataFile(), "the data file itself"},
               {options.common.configuration, "the configuration file"},
               {configuration.logFile, "the daemon's log"}}}
        .check();
    Host host(std::move(configuration), options.common);
    RecordInput input(options.inputs, format);
    input.start();
    EnrichPlan const plan(wanted, format, input);
    EnrichContext const context{host.plugIn(),
                                plan,
                                input,
                                times,
                                options.normalise ? &host.numbers() : nullptr,
                                options.method,
                                options.method.value_or(host.plugIn().serviceStatus().searchMethod),
                                options.output ? compressionOfName(*options.output) : Compression::NONE,
                                options.passThrough,
                                options.keep,
                                options.rejects.has_value()};
    return EnrichRun(options, context, input, host).run();
}

} // namespace

int enrich(EnrichOptions const& options) {
    return enrichCompleted(completed(options));
}

} // namespace nphost
