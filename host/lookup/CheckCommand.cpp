#include "host/lookup/CheckCommand.h"

#include "host/base/ExitStatus.h"
#include "host/base/HostError.h"
#include "host/base/Instant.h"
#include "host/base/JsonWriter.h"
#include "host/base/Output.h"
#include "host/base/StandardError.h"
#include "host/base/Text.h"
#include "host/fields/NetworkTable.h"
#include "host/module/Examination.h"
#include "host/module/Host.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>
#include <vector>

namespace nphost {

namespace {

constexpr char const* checkHelpCM =
    R"(Reads the data file as a load would, by the dialling codes of the configuration,
without serving it. The data file that the configuration names is not touched and
need not exist.

With --guard it is also held against the limits in [host.guard]: as the file of a
first load; of a reload, with --live; or of a delta, with --delta, for whose memory
--live counts, too.

With --networks the table of networks that the configuration names is read, as a daemon
would, and held against the file: which networks of the file it lacks, and which of its
own have no record. Neither changes the exit status. Without FILE the table alone is read.

Examples:
  nphost check --config examples/nphost.toml examples/portability.dat
  nphost check --config /etc/nphost.toml --guard --live 10000000 new.dat
  nphost check --config /etc/nphost.toml --networks

)";

struct CheckOptions {
    CommonOptions common;
    std::optional<std::string> file; // none: only the table of networks
    bool all = false;
    bool json = false;
    bool guard = false;
    bool networks = false;             // the table of them, too
    bool delta = false;                // for the guard it is a delta
    std::optional<std::uint64_t> live; // records, for the guard
};

using DAT::NumberPortability::DataSummary;
using DAT::NumberPortability::LineOutcome;

// What the guard would say.
struct Trial {
    LoadKind kind;
    GuardLimits limits;
    LoadFigures figures;
    std::vector<std::string> reasons;
};

// The table of networks beside the data.
struct TableCheck {
    std::filesystem::path file;
    std::size_t networks = 0;
    std::vector<std::string> lacking; // identifiers of the data that it does not have
    std::vector<std::string> unused;  // that no record has
};

// How a check is told, line by line and at its end.
class Report {
  public:
    Report() : outM(STDOUT_FILENO) {}
    Report(Report const&) = delete;
    Report& operator=(Report const&) = delete;
    virtual ~Report() = default;

    virtual void reject(RejectedLine const& line) = 0;
    virtual void finish(DataSummary const& summary, std::optional<Trial> const& trial,
                        std::optional<TableCheck> const& table) = 0;
    // Of the table alone.
    virtual void finish(TableCheck const& table) = 0;

  protected:
    Output outM;
};

class TextReport : public Report {
  public:
    explicit TextReport(bool all) : allM(all) {}

    // One of each kind is kept and shown at the end, where it is not lost above the counts.
    void reject(RejectedLine const& line) override {
        if (allM)
            outM.append(textOf(line));
        else if (std::find(seenM.begin(), seenM.end(), line.outcome) == seenM.end()) {
            seenM.push_back(line.outcome);
            firstM += textOf(line);
        }
    }

    void finish(DataSummary const& summary, std::optional<Trial> const& trial,
                std::optional<TableCheck> const& table) override {
        if (allM && summary.rejected() > 0)
            outM.append('\n');
        counts(summary);
        withoutDigits(summary);
        outM.append("Valid from:       ");
        outM.append(summary.earliest.isValid() ? readable(summary.earliest) + " to " + readable(summary.latest)
                                               : std::string("-"));
        outM.append('\n');
        networks(summary);
        if (table) {
            outM.append('\n');
            tell(*table);
            list("not in it", table->lacking);
            list("without records", table->unused);
        }
        if (!firstM.empty())
            outM.append("\nThe first rejected line of each kind (--all shows every one):\n" + firstM);
        if (trial)
            guard(*trial);
        outM.flush();
    }

    void finish(TableCheck const& table) override {
        tell(table);
        outM.flush();
    }

  private:
    void tell(TableCheck const& table) { count("Networks in the table:", table.networks); }
    void list(std::string const& label, std::vector<std::string> const& identifiers) {
        count("  " + label + ":", identifiers.size());
        for (std::string const& each : identifiers)
            outM.append("    " + shortened(each) + "\n");
    }

    static std::string textOf(RejectedLine const& line) {
        return "line " + std::to_string(line.number) + ": " + line.reason.identifier + ": " + line.reason.detail +
               "\n    " + shortened(line.text) + "\n";
    }

    void count(std::string label, unsigned long number) {
        constexpr std::size_t width = 30;
        std::string const digits = std::to_string(number);
        std::size_t const used = characters(label) + digits.size();
        // A label that is too long for its column keeps one blank before the number.
        label.append(used < width ? width - used : 1, ' ');
        outM.append(label + digits + "\n");
    }

    void counts(DataSummary const& summary) {
        count("Lines:", summary.lines);
        count("Records:", summary.records);
        count("Numbers:", summary.numbers);
        count("Rejected lines:", summary.rejected());
        count("  number of fields:", summary.rejectedFields);
        count("  valid-from:", summary.rejectedDateTimes);
        count("  number:", summary.rejectedNumbers);
        count("  network identifier:", summary.rejectedNetworks);
        count("  duplicate:", summary.duplicates);
    }

    void withoutDigits(DataSummary const& summary) {
        if (summary.withoutDigits == 0)
            return;
        count("Numbers without digits:", summary.withoutDigits);
        outM.append(
            "  a warning: in the country's stored form they answer for all of the country; the first is in line " +
            std::to_string(summary.firstWithoutDigits) + "\n");
    }

    void networks(DataSummary const& summary) {
        if (summary.networks.empty())
            return;
        outM.append("\nRecords by network:\n");
        for (auto const& [network, records] : summary.networks)
            count("  " + shortened(network.view()), records);
    }

    void guard(Trial const& trial) {
        bool const passes = trial.reasons.empty();
        outM.append(std::string("\nThe guard would ") + (passes ? "let it pass" : "refuse it") + " as a " +
                    nphost::nameOf(trial.kind));
        // Of a delta live records count for its memory alone, and need not be given.
        if (trial.kind == LoadKind::RELOAD || trial.figures.liveRecords > 0)
            outM.append(" beside " + grouped(trial.figures.liveRecords) + " live records");
        // Only those that are asked of this kind of load: the others would be taken for kept.
        GuardLimits const asked = trial.limits.askedOf(trial.kind);
        outM.append(":\n  limits: " + (asked.any() ? nphost::textOf(asked) : "none is asked of this kind of load") +
                    "\n  memory: up to " + grouped(mebibytes(memoryAtPeak(trial.kind, trial.figures))) + " MiB\n");
        for (std::string const& reason : trial.reasons)
            outM.append("  refused: " + visible(reason) + "\n");
    }

    bool allM;
    std::vector<LineOutcome> seenM;
    std::string firstM;
};

// The object is written piece by piece, so that it may list millions of lines.
class JsonReport : public Report {
  public:
    explicit JsonReport(bool all) : allM(all) {}

    void reject(RejectedLine const& line) override {
        if (!allM)
            return;
        // The list is begun with its first line: without one it is written empty, at the end.
        std::string text = startedM ? ",\n" : "{\"rejects\":[\n";
        startedM = true;
        JsonWriter(text)
            .beginObject()
            .member("detail", line.reason.detail)
            .member("identifier", line.reason.identifier)
            .member("line", line.number)
            .member("text", line.text)
            .endObject();
        outM.append(text);
    }

    void finish(DataSummary const& summary, std::optional<Trial> const& trial,
                std::optional<TableCheck> const& table) override {
        std::string text = startedM ? "],\n" : allM ? "{\"rejects\":[],\n" : "{";
        JsonWriter json(text); // the object is open already
        json.member("duplicates", summary.duplicates).member("earliest", instant(summary.earliest));
        if (trial)
            guard(json.key("guard"), *trial);
        json.member("latest", instant(summary.latest)).member("lines", summary.lines);
        if (table) {
            tell(json.key("networkTable"), *table);
            json.member("lacking", table->lacking).member("unused", table->unused).endObject();
        }
        json.member("networks", networks(summary))
            .member("numbers", summary.numbers)
            .member("numbersWithoutDigits", summary.withoutDigits)
            .member("records", summary.records)
            .member("rejectedDateTimes", summary.rejectedDateTimes)
            .member("rejectedFields", summary.rejectedFields)
            .member("rejectedNetworks", summary.rejectedNetworks)
            .member("rejectedNumbers", summary.rejectedNumbers)
            .endObject();
        write(text);
    }

    void finish(TableCheck const& table) override {
        std::string text;
        JsonWriter json(text);
        json.beginObject();
        tell(json.key("networkTable"), table);
        json.endObject().endObject();
        write(text);
    }

  private:
    void write(std::string const& text) {
        outM.append(text);
        outM.append('\n');
        outM.flush();
    }

    // The object stays open.
    static void tell(JsonWriter& json, TableCheck const& table) {
        json.beginObject().member("count", table.networks).member("file", table.file.native());
    }

    static std::optional<std::string> instant(BAS::DateTime at) {
        return at.isValid() ? std::optional(digitsOf(at)) : std::nullopt;
    }

    static void guard(JsonWriter& json, Trial const& trial) {
        json.beginObject()
            .member("kind", nameOf(trial.kind))
            .member("liveRecords", trial.figures.liveRecords)
            .member("memoryMiB", mebibytes(memoryAtPeak(trial.kind, trial.figures)))
            .member("passed", trial.reasons.empty())
            .member("reasons", trial.reasons)
            .endObject();
    }

    // Names that are no UTF-8 may become the same one.
    static std::map<std::string, unsigned long> networks(DataSummary const& summary) {
        std::map<std::string, unsigned long> records;
        for (auto const& [network, count] : summary.networks)
            records[asUtf8(network.view())] += count;
        return records;
    }

    bool allM;
    bool startedM = false;
};

NetworkTable tableOf(CheckOptions const& options, Configuration const& configuration, TableCheck& check) {
    check.file = configuration.of<NetworkTable::Settings>().file;
    if (check.file.empty())
        throw HostError(visible(options.common.configuration.native()) + ": there is no key 'networks' in [host]");
    NetworkTable table = NetworkTable::read(check.file);
    check.networks = table.size();
    return table;
}

void compare(NetworkTable const& table, DataSummary const& summary, TableCheck& check) {
    std::set<std::string_view> used;
    for (auto const& [network, records] : summary.networks) {
        used.insert(network.view());
        if (table.find(network.view()) == nullptr)
            check.lacking.emplace_back(network.view());
    }
    for (Network const& network : table)
        if (!used.contains(network.id))
            check.unused.push_back(network.id);
}

Configuration configurationFor(CheckOptions const& options) {
    // The codes are the configuration's; the data file is the one to be checked, so that the module opens no other.
    Configuration configuration = options.common.readConfiguration();
    // Before the file is read: a shell may have sent complaints into it.
    StandardError::keepOff(*options.file, "the file itself");
    configuration.useDataFile(*options.file);
    return configuration;
}

// Reads the file and tells its rejected lines; `first` becomes the first of them in words.
// The progress line gives way where the rejected lines go to the same terminal.
DataSummary readFile(Host& host, CheckOptions const& options, Report& report, std::string& first) {
    ProgressLine const progress(
        "nphost: checking", [&host] { return host.loadProgress(); }, !options.all || isatty(STDOUT_FILENO) != 1);
    DataSummary summary;
    auto const onReject = [&](RejectedLine const& line) {
        if (first.empty())
            first = inWords(line);
        report.reject(line);
    };
    // To the end of the file, whatever the limits are: all figures are told.
    if (!examine(host.plugIn(), host.log(), *options.file, summary, onReject, {}))
        host.fail("the file could not be examined");
    return summary;
}

// The module reads a mark as it reads any other byte before a number: no code begins there.
void warnOfByteOrderMark(std::string const& file) {
    std::array<char, 3> bytes{};
    if (std::ifstream(file, std::ios::binary).read(bytes.data(), bytes.size()) &&
        std::string_view(bytes.data(), bytes.size()) == "\xef\xbb\xbf")
        complain(visible(file) +
                 ": a warning: the file begins with a byte order mark, so the number in line 1 is taken "
                 "for one without any access code; remove the mark");
}

// Records that are not at hand are taken to be like those of the file, if that has enough of them.
std::uint64_t treeBytesOf(std::uint64_t records, LoadFigures const& figures) {
    // The upper end of what was measured, 22 to 26.
    constexpr double bytesARecord = 26;
    constexpr std::uint64_t enough = 100'000;
    double const each = figures.records < enough
                            ? bytesARecord
                            : static_cast<double>(figures.treeBytes) / static_cast<double>(figures.records);
    return static_cast<std::uint64_t>(each * static_cast<double>(records));
}

Trial tryGuard(GuardLimits const& limits, CheckOptions const& options, DataSummary const& summary,
               std::string const& first) {
    Trial trial{options.delta  ? LoadKind::DELTA
                : options.live ? LoadKind::RELOAD
                               : LoadKind::FIRST_LOAD,
                limits,
                figuresOf(summary, first),
                {}};
    // What a daemon takes without data, roughly: this process says nothing of it.
    constexpr std::uint64_t daemonBytes = 32UL * 1024 * 1024;
    trial.figures.otherBytes = daemonBytes;
    trial.figures.liveRecords = options.live.value_or(0);
    trial.figures.liveTreeBytes = treeBytesOf(trial.figures.liveRecords, trial.figures);
    // The daemon asks the same function, so that the two agree.
    trial.reasons = crossedLimits(limits, trial.kind, trial.figures);
    return trial;
}

std::unique_ptr<Report> makeReport(CheckOptions const& options) {
    if (options.json)
        return std::make_unique<JsonReport>(options.all);
    return std::make_unique<TextReport>(options.all);
}

int checkTable(CheckOptions const& options) {
    TableCheck table;
    tableOf(options, options.common.readConfiguration(), table);
    makeReport(options)->finish(table);
    return FINE;
}

int check(CheckOptions const& options) {
    if (!options.file && options.networks && !options.guard && !options.all)
        return checkTable(options);
    if (!options.file)
        throw HostError("FILE is required; --networks alone needs none");
    Configuration configuration = configurationFor(options);
    GuardLimits const limits = configuration.of<GuardLimits>();
    // Held against nothing, every file would pass, and that would look like a verdict.
    if (options.guard && !limits.any())
        throw HostError(visible(options.common.configuration.native()) + ": there is no limit in [host.guard]");
    // Before the file is read, which takes its time.
    std::optional<TableCheck> tableCheck;
    NetworkTable table;
    if (options.networks)
        table = tableOf(options, configuration, tableCheck.emplace());
    Host host(std::move(configuration), options.common);
    std::unique_ptr<Report> const report = makeReport(options);
    std::string first;
    DataSummary const summary = readFile(host, options, *report, first);
    // A failure that was reported is the outcome, also when the file could be read.
    host.throwFailure();
    warnOfByteOrderMark(*options.file);
    // Only now: a verdict needs the figures of the whole file.
    std::optional<Trial> trial;
    if (options.guard)
        trial = tryGuard(limits, options, summary, first);
    if (tableCheck)
        compare(table, summary, *tableCheck);
    report->finish(summary, trial, tableCheck);
    // The guard's word weighs more than rejected lines: what it refuses is not loaded.
    if (trial && !trial->reasons.empty())
        return REFUSED;
    return summary.rejected() == 0 ? FINE : NOT_FOUND;
}

void declareCheck(Arguments& arguments, CommonOptions& common) {
    auto const options = std::make_shared<CheckOptions>();
    addConfiguration(arguments, common).required();
    arguments.add("FILE", " ", options->file, "The data file").named();
    arguments.flag("--all", options->all, "Show every rejected line, not just the first of each kind");
    arguments.flag("--json", options->json, "Write one JSON object; with --all it lists rejected lines");
    arguments.flag("--networks", options->networks, "Read the table of networks, too, and hold it against the file");
    Option const guard = arguments.flag("--guard", options->guard, "Hold the file against the limits in [host.guard]");
    arguments.add("--live", "N", options->live, "With --guard: as a reload, or a delta, beside so many live records")
        .between(0, 4'294'967'295, "0 to 4294967295")
        .needs(guard);
    arguments.flag("--delta", options->delta, "With --guard: as a delta").needs(guard);
    arguments.footer(std::string(checkHelpCM) + exitStatusHelpCM);
    arguments.runs([options, &common] {
        options->common = common;
        return check(*options);
    });
}

} // namespace

Command const checkCommandCM = {"check", "Say what a data file holds and what is wrong with it", declareCheck};

} // namespace nphost
