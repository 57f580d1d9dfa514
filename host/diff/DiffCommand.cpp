#include "host/diff/DiffCommand.h"

#include "host/base/ExitStatus.h"
#include "host/base/HostError.h"
#include "host/base/Instant.h"
#include "host/base/StandardError.h"
#include "host/base/Text.h"
#include "host/diff/DiffReport.h"
#include "host/fields/DataClock.h"
#include "host/fields/FieldOptions.h"
#include "host/module/Host.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>

namespace nphost {

namespace {

constexpr char const* helpCM =
    R"(Reads both data files as a load would, by the dialling codes of the configuration; the
data file that the configuration names is not touched and need not exist. Tells how
many numbers are

  gained      in the new file only
  lost        in the old file only
  moved       in both, and the network in force at the instant differs: that of the
              number's latest record from then or before; '-' is nobody
  lengthened  in both, and the old history is an unchanged part of the new one
  rewritten   in both, and a record of the old history has another network, or is gone

Without --list a summary with the moves from network to network. With it the numbers of
one kind, one a line: number, old valid-from and network, new valid-from and network,
separated by tabs. Those of gained and lost numbers are in force, or else the first to
come; of moved ones, in force; of lengthened ones, the newest old record and the newest
that has come; of rewritten ones, the newest record that changed or has gone, and what
has its valid-from now. With --matrix the moves, most first, one pair of networks a line:
from, to, numbers, separated by tabs; '*' for both is the rest, after 65536 pairs.

Records that do not fit into --memory go to temporary files (TMPDIR), 32 bytes each.

Examples:
  nphost diff --config examples/nphost.toml yesterday.dat today.dat
  nphost diff --config examples/nphost.toml --list moved yesterday.dat today.dat
  nphost diff --config examples/nphost.toml --matrix yesterday.dat today.dat

Exit status:
  0  both files hold the same records
  1  they differ
  2  a usage, configuration or file error; one line on standard error says which)";

struct DiffOptions {
    static constexpr unsigned leastMemoryCM = 1;
    static constexpr unsigned mostMemoryCM = 65536;

    CommonOptions common;
    std::string before;
    std::string after;
    std::optional<std::string> at; // none: now
    std::optional<Difference> list;
    bool matrix = false; // neither list nor json
    unsigned memory = 512;
    bool json = false;
};

using DAT::NumberPortability::DataSummary;
using DAT::NumberPortability::FileLine;
using DAT::NumberPortability::LineOutcome;

// Takes the lines of one file to its sorter.
// On the thread of the visit, called by the module for each line: what it throws ends the visit.
class Reading {
  public:
    Reading(NetworkNames& names, RecordSorter& sorter, DataSummary& summary)
        : namesM(names), sorterM(sorter), summaryM(summary) {}

    void take(FileLine const& line) {
        ++summaryM.lines;
        summaryM.count(line.outcome);
        // A rejected line is counted and is no record; a duplicate shows only when its file is sorted.
        if (line.outcome != LineOutcome::INSERTED)
            return;
        SortedRecord record;
        record.head = headOf(line.digits);
        record.seconds = line.validFrom.seconds();
        record.line = line.number;
        record.network = namesM.numberOf(line.network);
        // Texts are those of the line: the sorter copies them.
        record.tail = line.digits.substr(std::min(headDigitsCM, line.digits.size()));
        if (record.network == NetworkNames::noneCM)
            record.text = line.network;
        sorterM.add(record);
    }

  private:
    NetworkNames& namesM;
    RecordSorter& sorterM;
    DataSummary& summaryM;
};

// The plug-in wants a data file that it can open; the configured one is not touched.
Configuration configurationFor(DiffOptions const& options) {
    Configuration configuration = options.common.readConfiguration();
    // Before they are read: a shell may have sent complaints into one of them.
    for (std::string const& file : {options.before, options.after})
        StandardError::keepOff(file, "one of the files");
    configuration.useDataFile(options.before);
    return configuration;
}

class Comparing {
  public:
    Comparing(DiffOptions const& options, Configuration configuration)
        : hostM(std::move(configuration), options.common), memoryM(std::size_t{options.memory} << 20U),
          namesM(memoryM / 8) {}

    // Three eighths of the memory for each file, for both may be held at once; an eighth for the names, and what is
    // left for all else.
    std::unique_ptr<RecordSource> read(FileTotals& file) {
        RecordSorter sorter(memoryM / 8 * 3);
        // Both files share the names: a network has one number in both, by which records are compared.
        Reading reading(namesM, sorter, file.lines);
        ProgressLine const progress("nphost: reading " + shortened(file.name), [this] { return hostM.loadProgress(); });
        std::exception_ptr failure; // the module would report it as its own
        bool const complete = hostM.plugIn().visitFile(BAS::String(file.name), [&](FileLine const& line) {
            try {
                reading.take(line);
            } catch (...) {
                failure = std::current_exception();
                throw; // ends the visit
            }
        });
        if (failure)
            std::rethrow_exception(failure);
        if (!complete)
            hostM.fail("the file could not be read");
        return sorter.finish();
    }

    NetworkNames const& names() const { return namesM; }

  private:
    Host hostM;
    std::size_t memoryM;
    NetworkNames namesM;
};

void complete(FileTotals& file, SideCounts const& counts) {
    file.lines.records = counts.records;
    file.lines.numbers = counts.numbers;
    file.lines.duplicates = counts.duplicates;
}

int compare(DiffOptions const& options) {
    Configuration configuration = configurationFor(options);
    DataClock const clock(configuration);
    // A wrong instant is told before the files are read.
    DiffTotals totals = {instantOf(options.at, clock, clock.now()), {options.before, {}}, {options.after, {}}, {}};
    Comparing comparing(options, std::move(configuration));
    std::unique_ptr<RecordSource> before = comparing.read(totals.before);
    std::unique_ptr<RecordSource> after = comparing.read(totals.after);
    std::unique_ptr<DiffReport> const report = makeDiffReport(options.list, options.matrix, options.json);
    FileComparison comparison(comparing.names(), totals.at, options.list,
                              [&](NumberChange const& change) { report->number(change); });
    totals.result = comparison.compare(std::move(before), std::move(after));
    // Records, numbers and duplicates are known only now that the files are sorted.
    complete(totals.before, totals.result.before);
    complete(totals.after, totals.result.after);
    report->finish(totals);
    report->flush();
    return totals.result.isEqual() ? FINE : NOT_FOUND;
}

int diff(DiffOptions const& options) {
    try {
        return compare(options);
    } catch (std::bad_alloc const&) {
        // The bound is the user's, and this is the way to stay below what there is.
        throw HostError("out of memory: records may take " + std::to_string(options.memory) +
                        " MiB; a smaller --memory leaves more of them to temporary files");
    }
}

Difference differenceOf(std::string const& name) {
    auto const* const found = std::find(differenceNamesCM.begin(), differenceNamesCM.end(), name);
    return static_cast<Difference>(found - differenceNamesCM.begin()); // one of them, as the parser sees to
}

void declare(Arguments& arguments, CommonOptions& common) {
    auto const options = std::make_shared<DiffOptions>();
    addConfiguration(arguments, common).required();
    arguments.add("OLD", " ", options->before, "The data file before").required().named();
    arguments.add("NEW", " ", options->after, "The data file after").required().named();
    addInstant(arguments, "--at", options->at, "When numbers must be in force; ");
    auto const takeList = [options](std::string const& name) { options->list = differenceOf(name); };
    Option const list =
        arguments.read("--list", "WHAT", takeList, "List numbers: gained, lost, moved, lengthened or rewritten")
            .among({differenceNamesCM.begin(), differenceNamesCM.end()});
    arguments.add("--memory", "MIB", options->memory, "Keep records in so much memory, in MiB; default: 512")
        .between(DiffOptions::leastMemoryCM, DiffOptions::mostMemoryCM);
    Option const json =
        arguments.flag("--json", options->json, "Write one JSON object; with --list it has the numbers, too");
    arguments.flag("--matrix", options->matrix, "Write how many numbers moved from which network to which")
        .excludes(list)
        .excludes(json);
    arguments.footer(helpCM);
    arguments.runs([options, &common] {
        options->common = common;
        return diff(*options);
    });
}

} // namespace

Command const diffCommandCM = {"diff", "Say what has changed from one data file to another", declare};

} // namespace nphost
