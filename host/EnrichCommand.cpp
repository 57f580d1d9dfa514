#include "host/EnrichCommand.h"

#include "host/EnrichPipeline.h"
#include "host/ExitStatus.h"
#include "host/HostError.h"
#include "host/ResultTarget.h"
#include "host/SameFile.h"
#include "host/StandardError.h"
#include "host/Text.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace nphost {

namespace {

// More records were rejected than may be.
struct TooManyRejects {};

// While it lives, writing to a pipe that nobody reads is an error and no signal.
class IgnoredPipeSignal {
  public:
    IgnoredPipeSignal() : beforeM(std::signal(SIGPIPE, SIG_IGN)) {}
    IgnoredPipeSignal(IgnoredPipeSignal const&) = delete;
    IgnoredPipeSignal& operator=(IgnoredPipeSignal const&) = delete;
    ~IgnoredPipeSignal() { std::signal(SIGPIPE, beforeM); }

  private:
    void (*beforeM)(int);
};

std::string formatName(EnrichOptions const& options) {
    if (!options.format.empty())
        return options.format;
    std::string_view const name = withoutSuffix(options.inputs.front());
    auto const endsInOne = [name](auto... suffixes) { return (name.ends_with(suffixes) || ...); };
    if (endsInOne(".tsv", ".tab"))
        return "tsv";
    return endsInOne(".ndjson", ".jsonl", ".json") ? "ndjson" : "csv";
}

char separatorOf(EnrichOptions const& options, std::string const& format) {
    if (options.separator.empty())
        return format == "tsv" ? '\t' : ',';
    if (options.separator == "tab" || options.separator == "\\t")
        return '\t';
    constexpr std::string_view impossible = "\"\r\n";
    if (options.separator.size() != 1 || impossible.find(options.separator) != std::string_view::npos)
        throw HostError("--separator: '" + shortened(options.separator) +
                        "' is not one character, or one that cannot separate; for the tab write 'tab'");
    return options.separator.front();
}

RecordFormat formatOf(EnrichOptions const& options) {
    std::string const name = formatName(options);
    RecordFormat format;
    format.kind = name == "ndjson" ? RecordFormat::Kind::JSON : RecordFormat::Kind::CSV;
    if (format.kind == RecordFormat::Kind::JSON && (!options.separator.empty() || options.noHeader || options.noQuotes))
        throw HostError("--separator, --no-header and --no-quotes have no meaning for NDJSON");
    format.csv = {separatorOf(options, name), !options.noQuotes};
    format.header = !options.noHeader;
    return format;
}

WantedColumns wantedOf(EnrichOptions const& options) {
    WantedColumns wanted{options.time, options.numbers, {}};
    for (std::string const& name : options.added) {
        std::optional<Added> const added = addedOf(name);
        if (!added)
            throw HostError("--add: '" + shortened(name) +
                            "' is not one of network, valid-from, prefix, next-change and method");
        wanted.added.push_back(*added);
    }
    if (std::find(wanted.added.begin(), wanted.added.end(), Added::NETWORK) == wanted.added.end())
        wanted.added.insert(wanted.added.begin(), Added::NETWORK);
    return wanted;
}

// None: rejected records are listed nowhere, because they stay in the output.
std::optional<std::string> rejectsOf(EnrichOptions const& options) {
    if (options.rejects || options.keep)
        return options.rejects;
    if (!options.output)
        throw HostError("where do records go that cannot be used? Give --rejects FILE, or --keep to leave them in the "
                        "output");
    return *options.output + ".rejects";
}

// Devices and pipes may be named more than once.
void refuseSameFile(std::string const& written, std::string const& other, char const* what) {
    std::error_code error;
    if (!other.empty() && isSameFile(written, other) && !std::filesystem::is_other(written, error))
        throw HostError("the output " + visible(written) + " is " + what);
}

// A shell may have opened the input as standard output, or the other way round.
void refuseSameFile(std::string const& input) {
    struct stat in = {};
    struct stat out = {};
    bool const known = (input == "-" ? fstat(STDIN_FILENO, &in) : stat(input.c_str(), &in)) == 0;
    if (known && fstat(STDOUT_FILENO, &out) == 0 && S_ISREG(in.st_mode) && in.st_dev == out.st_dev &&
        in.st_ino == out.st_ino)
        throw HostError("standard output is one of the inputs");
}

void checkFiles(EnrichOptions const& options, std::optional<std::string> const& rejects, std::string const& dataFile) {
    for (std::optional<std::string> const& written : {options.output, rejects}) {
        if (!written)
            continue;
        for (std::string const& input : options.inputs)
            refuseSameFile(*written, input == "-" ? "/dev/stdin" : input, "one of the inputs");
        refuseSameFile(*written, dataFile, "the data file itself");
        refuseSameFile(*written, options.common.configuration, "the configuration file");
    }
    if (options.output && rejects)
        refuseSameFile(*options.output, *rejects, "the file of the rejects too");
    for (std::string const& input : options.inputs) {
        if (!options.output)
            refuseSameFile(input);
        if (input != "-" && access(input.c_str(), R_OK) != 0)
            throw HostError(visible(input) + ": cannot be opened: " + std::system_category().message(errno));
    }
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

// A target with the compression that its name asks for.
class CompressedTarget {
  public:
    explicit CompressedTarget(std::string const& file) : targetM(file), compressorM(compressionOfName(file)) {}

    void write(std::string_view text) {
        if (!text.empty())
            targetM.write(compressorM.compress(text, placeM));
    }
    void finish() { targetM.finish(); }

  private:
    ResultTarget targetM;
    Compressor compressorM;
    std::string placeM;
};

// One run, from the opened input to the summary.
class EnrichRun {
  public:
    EnrichRun(EnrichOptions const& options, EnrichContext const& context, RecordInput& input, Host& host)
        : optionsM(options), contextM(context), inputM(input), hostM(host),
          pipelineM(context, input, headerOf(context.plan, input),
                    options.threads > 0 ? options.threads : std::max(1U, std::thread::hardware_concurrency())) {}

    int run(std::optional<std::string> const& rejects) {
        if (rejects)
            rejectsM.emplace(*rejects);
        try {
            writeAll();
        } catch (TooManyRejects const&) {
            summaryM.complete = false;
            finishRejects();
        }
        finishSummary(rejects);
        return summaryM.counts.rejected() == 0 ? FINE : NOT_FOUND;
    }

  private:
    using Clock = std::chrono::steady_clock;

    void writeAll() {
        ResultTarget output(optionsM.output);
        if (!optionsM.passThrough)
            hostM.start();
        if (rejectsM)
            rejectsM->write(rejectsHeaderCM);
        Clock::time_point const start = Clock::now();
        {
            ProgressLine const progress("nphost: enriching", progressSource(),
                                        optionsM.output || isatty(STDOUT_FILENO) != 1);
            pipelineM.run([&](EnrichJob const& job) { take(job, output); });
        }
        summaryM.seconds = std::chrono::duration<double>(Clock::now() - start).count();
        hostM.throwFailure(); // a look-up that ran out of memory is not "not found"
        if (!writtenM)
            output.write(emptyOutput());
        finishRejects();
        output.finish();
    }

    void take(EnrichJob const& job, ResultTarget& output) {
        if (rejectsM)
            rejectsM->write(job.rejects);
        summaryM.counts += job.counts;
        recordsM.store(summaryM.counts.records, std::memory_order_relaxed);
        foundM.store(summaryM.counts.found, std::memory_order_relaxed);
        rejectedM.store(summaryM.counts.rejected(), std::memory_order_relaxed);
        if (optionsM.maxRejects && summaryM.counts.rejected() > *optionsM.maxRejects)
            throw TooManyRejects();
        if (job.output.empty())
            return;
        output.write(job.output);
        writtenM = true;
    }

    // Of a compressed file, nothing is not no byte.
    std::string emptyOutput() const {
        std::string place;
        return std::string(Compressor(contextM.compression).compress({}, place));
    }

    void finishRejects() {
        if (rejectsM)
            rejectsM->finish();
    }

    ProgressLine::Source progressSource() {
        return [this] {
            return ProgressLine::Reading{recordsM, inputM.done(), inputM.total(), "records",
                                         std::to_string(foundM) + " found, " + std::to_string(rejectedM) + " rejected"};
        };
    }

    void finishSummary(std::optional<std::string> const& rejects) {
        pipelineM.addNetworks(summaryM.networks);
        summaryM.kept = optionsM.keep;
        if (optionsM.json)
            return StandardError::write(summaryM.json());
        StandardError::write(summaryM.text());
        if (rejects && summaryM.counts.rejected() > 0)
            complain("the rejected records are in " + *rejects);
        if (!summaryM.complete)
            complain("stopped after more than " + std::to_string(*optionsM.maxRejects) + " rejected records" +
                     (optionsM.output ? "; " + *optionsM.output + " was not written" : std::string()));
    }

    EnrichOptions const& optionsM;
    EnrichContext const& contextM;
    RecordInput& inputM;
    Host& hostM;
    EnrichPipeline pipelineM;
    std::optional<CompressedTarget> rejectsM;
    EnrichSummary summaryM;
    bool writtenM = false;
    std::atomic<std::uint64_t> recordsM{0}; // for the progress line
    std::atomic<std::uint64_t> foundM{0};
    std::atomic<std::uint64_t> rejectedM{0};
};

int enrichChecked(EnrichOptions const& options) {
    RecordFormat const format = formatOf(options);
    WantedColumns const wanted = wantedOf(options);
    TimeReader const times(options.timeFormat, options.zone);
    std::optional<std::string> const rejects = rejectsOf(options);
    Configuration configuration = readConfiguration(options.common.configuration);
    checkFiles(options, rejects, configuration.dataFile());
    DiallingCodes const codes = diallingCodesOf(configuration);
    Host host(std::move(configuration), options.common);
    NumberForm const form(codes, [&host](BAS::String& number) { host.plugIn().normalize(number); });
    RecordInput input(options.inputs, format);
    input.start();
    EnrichPlan const plan(wanted, format, input);
    EnrichContext const context{host.plugIn(),
                                plan,
                                input,
                                times,
                                options.normalise ? &form : nullptr,
                                options.method,
                                options.method.value_or(host.plugIn().serviceStatus().searchMethod),
                                options.output ? compressionOfName(*options.output) : Compression::NONE,
                                options.passThrough,
                                options.keep,
                                rejects.has_value()};
    return EnrichRun(options, context, input, host).run(rejects);
}

} // namespace

int enrich(EnrichOptions const& options) {
    try {
        IgnoredPipeSignal const ignored;
        return enrichChecked(options);
    } catch (OutputClosed const&) {
        std::raise(SIGPIPE); // as of old, unless whoever started us ignores it
    }
    return FAILED;
}

} // namespace nphost
