#include "host/CommandLine.h"

#include "host/CheckCommand.h"
#include "host/CtlCommand.h"
#include "host/DiffCommand.h"
#include "host/EnrichCommand.h"
#include "host/ExitStatus.h"
#include "host/HostError.h"
#include "host/ImportCommand.h"
#include "host/Interruption.h"
#include "host/LookupCommand.h"
#include "host/Numbers.h"
#include "host/Output.h"
#include "host/PrintCommand.h"
#include "host/RunCommand.h"
#include "host/StandardError.h"
#include "host/Text.h"
#include "host/UpcomingCommand.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <exception>
#include <functional>
#include <new>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace nphost {

namespace {

constexpr char const* exitStatusCM = R"(Exit status:
  0  fine: everything found, the file is clean, or (enrich) every record could be used
  1  a number without a record, a line that is no question, a file with rejected lines,
     rejected records (enrich, import), files that differ, a ctl command that failed
  2  a usage, configuration or file error; one line on standard error says which
  3  'check --guard': the guard would refuse the file; 'run': it refuses the first load)";

constexpr char const* programHelpCM = R"('nphost COMMAND --help' explains a command. To begin with:
  nphost check  --config examples/nphost.toml examples/portability.dat
  nphost lookup --config examples/nphost.toml --at 20240615120000 00447700900123

)";

constexpr char const* lookupHelpCM =
    R"(Prints one line a number: number, instant, valid-from and network, separated by
tabs; '-' for the last two when no record holds.

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

constexpr char const* enrichHelpCM =
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

constexpr char const* printHelpCM =
    R"(Without the heading the listing is a data file again: sorted, in stored form and
without bad lines. It is compressed if the name of its file ends in .gz or .zst; a load
does not read it then.

Examples:
  nphost print --config examples/nphost.toml
  nphost print --config examples/nphost.toml --no-heading --output clean.dat

)";

constexpr char const* checkHelpCM =
    R"(Reads the data file as a load would, by the dialling codes of the configuration,
without serving it. The data file that the configuration names is not touched and
need not exist.

With --guard it is also held against the limits in [host.guard]: as the file of a
first load; of a reload, with --live; or of a delta, with --delta, for whose memory
--live counts, too.

Examples:
  nphost check --config examples/nphost.toml examples/portability.dat
  nphost check --config /etc/nphost.toml --guard --live 10000000 new.dat

)";

constexpr char const* diffHelpCM =
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

constexpr char const* upcomingHelpCM =
    R"(Loads the data and prints one line for every record that is valid from later than the
instant, by instant, then by number: instant, number, from which network and to which,
separated by tabs. The network before is what a look-up by the configured search method
answers for the second before; '-' is nobody.

Example:
  nphost upcoming --config examples/nphost.toml --from 20240615120000 --until 20251231235959

Exit status:
  0  fine, also when nothing is to come
  2  a usage, configuration or file error; one line on standard error says which)";

constexpr char const* importHelpCM =
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

constexpr char const* runHelpCM =
    R"(Loads the data and serves them until SIGTERM or SIGINT. SIGHUP reloads the data and
reopens the log file. With the key 'socket' in [host] the daemon is asked and commanded
by 'nphost ctl'; the key 'clients' names modules that look numbers up within the daemon.

With limits in [host.guard] the file is read before it is loaded, and refused if it
crosses one; so is that of every reload and delta. --force lets the first load pass.

Exit status: 0 stopped by a signal; 2 it could not start, 3 the guard refuses the data
file; one line on standard error says why.

Example:
  nphost run --config /etc/numberportability/nphost.toml

)";

constexpr char const* ctlHelpCM =
    R"('nphost ctl COMMAND --help' explains a command. The daemon is found by --socket or by
the key 'socket' that --config names.

Examples:
  nphost ctl --config /etc/numberportability/nphost.toml status
  nphost ctl --socket /run/numberportability/nphost.socket reload --wait

Exit status:
  0  fine: found, usable, carried out
  1  not found, not usable, failed or not handled
  2  a usage error, no daemon, or a refused request; one line on standard error says why)";

// All options of all commands, and the command that was chosen.
struct Chosen {
    CommonOptions common;
    LookupOptions lookup;
    EnrichOptions enrich;
    PrintOptions print;
    CheckOptions check;
    DiffOptions diff;
    UpcomingOptions upcoming;
    ImportOptions feed;
    RunOptions run;
    CtlOptions ctl;
    std::string method;
    std::string list;
    std::function<int()> command;
};

// An empty name, as a script's variable that is not set leaves it.
CLI::Validator isName() {
    return {[](std::string const& text) { return text.empty() ? "the name is empty" : ""; }, "", "name"};
}

// A number in digits alone: the library would take -1 for the largest one.
CLI::Validator isCount() {
    auto const check = [](std::string const& text) {
        std::uint64_t number = 0;
        auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        bool const whole = error == std::errc() && end == text.data() + text.size();
        return whole ? std::string() : "'" + text + "' is not a number from 0 to 18446744073709551615";
    };
    return {check, "", "count"};
}

constexpr char const* notANumberCM = "is not a number";

// The library makes a list of a positional argument in brackets where there may be several: '[a,b]' would be a and b, and
// '[a.csv]' another file.
void refuseLists(CLI::App& command, char const* why) {
    auto const check = [why](std::string const& text) {
        if (text.starts_with('[') && text.ends_with(']'))
            throw HostError("'" + shortened(text) + "' " + why);
        return std::string();
    };
    command.validate_positionals(); // before they are split, too
    for (CLI::Option* const option : command.get_options())
        if (option->get_positional())
            option->check(CLI::Validator(check, ""));
}

CLI::App* addCommand(CLI::App& app, Chosen& chosen, char const* name, char const* description, char const* help,
                     char const* exitStatus = exitStatusCM) {
    CLI::App* const command = app.add_subcommand(name, description);
    command->fallthrough(); // so that --verbose may also follow the command
    command->footer(std::string(help) + exitStatus);
    command->add_option("-c,--config", chosen.common.configuration, "The configuration file, TOML (required)")
        ->option_text("FILE")
        ->required();
    return command;
}

void addLookup(CLI::App& app, Chosen& chosen) {
    LookupOptions& options = chosen.lookup;
    CLI::App* const command =
        addCommand(app, chosen, "lookup", "Say to which network numbers belonged at an instant", lookupHelpCM);
    command->add_option("NUMBER", options.numbers, "The numbers, or '-' alone for standard input")
        ->option_text("...")
        ->required();
    refuseLists(*command, notANumberCM);
    command->add_option("--at", options.at, "YYYYMMDDHHMMSS or YYYY-MM-DDTHH:MM:SS, UTC; default: now")
        ->option_text("INSTANT");
    command->add_option("--method", chosen.method, "best, exact or shortest; default: as configured")
        ->option_text("METHOD")
        ->check(CLI::IsMember({"best", "exact", "shortest"}));
    command->add_flag("--normalise", options.normalise, "Take numbers as people write them");
    command->callback([&chosen] {
        chosen.command = [&chosen] {
            chosen.lookup.common = chosen.common;
            if (!chosen.method.empty())
                chosen.lookup.method = searchMethodOf(chosen.method);
            return lookup(chosen.lookup);
        };
    });
}

void addEnrichInput(CLI::App& command, EnrichOptions& options) {
    command.add_option("INPUT", options.inputs, "The files; default, and '-': standard input")->option_text("...");
    refuseLists(command, "is in brackets, as a list would be; a file of that name needs ./ before it");
    command.add_option("--number", options.numbers, "A column with numbers; may be given again (required)")
        ->option_text("COLUMN")
        ->allow_extra_args(false)
        ->required();
    command.add_option("--time", options.time, "The column with the time (required)")
        ->option_text("COLUMN")
        ->required();
    command
        .add_option("--time-format", options.timeFormat,
                    "digits, iso, seconds, milliseconds or a pattern; default: digits")
        ->option_text("TIME");
    command.add_option("--zone", options.zone, "The time zone of the data; clock changes: below; default: UTC")
        ->option_text("ZONE");
    command.add_option("--format", options.format, "csv, tsv or ndjson; default: by the first input's name, or csv")
        ->option_text("FORMAT")
        ->check(CLI::IsMember({"csv", "tsv", "ndjson"}));
    command
        .add_option("--separator", options.separator,
                    "What separates fields, one byte; 'tab' for the tab; default: by the name, or a comma")
        ->option_text("C");
    command.add_flag("--no-header", options.noHeader, "The first record names no columns");
    command.add_flag("--no-quotes", options.noQuotes, "Quotation marks are bytes like others");
    command.add_flag("--normalise", options.normalise,
                     "Take numbers in any form: national, +44..., tel: and sip: URIs");
}

void addEnrichOutput(CLI::App& command, EnrichOptions& options) {
    command.add_option("-o,--output", options.output, "The file to write; default: standard output")
        ->option_text("FILE")
        ->check(isName());
    command.add_option("--add", options.added, "Besides the network: valid-from, prefix, next-change, method")
        ->option_text("LIST")
        ->delimiter(',')
        ->allow_extra_args(false);
    command
        .add_option("--rejects", options.rejects,
                    "Where records go that cannot be used; with --output, its name and .rejects")
        ->option_text("FILE")
        ->check(isName());
    command.add_flag("--keep", options.keep,
                     "Leave records that cannot be used in the output; with --rejects list them, too");
    command
        .add_option("--max-rejects", options.maxRejects, "Stop after more of them than this, and write no output file")
        ->option_text("N")
        ->check(isCount());
    command.add_option("--threads", options.threads, "Threads that look up; default: one a processor")
        ->option_text("N")
        ->check(CLI::Range(1, 1024));
    command.add_flag("--json", options.json,
                     "The summary as one JSON object, on standard output with --output, else on standard error");
    command.add_flag("--pass-through", options.passThrough, "Everything but the look-up, to measure what it costs");
}

void addEnrich(CLI::App& app, Chosen& chosen) {
    CLI::App* const command =
        addCommand(app, chosen, "enrich", "Add to call records the networks of their numbers", enrichHelpCM);
    command->footer(enrichHelpCM); // it has exit statuses of its own
    addEnrichInput(*command, chosen.enrich);
    command->add_option("--method", chosen.method, "best, exact or shortest; default: as configured")
        ->option_text("METHOD")
        ->check(CLI::IsMember({"best", "exact", "shortest"}));
    addEnrichOutput(*command, chosen.enrich);
    command->callback([&chosen] {
        chosen.command = [&chosen] {
            chosen.enrich.common = chosen.common;
            if (!chosen.method.empty())
                chosen.enrich.method = searchMethodOf(chosen.method);
            if (chosen.enrich.inputs.empty())
                chosen.enrich.inputs = {"-"};
            return enrich(chosen.enrich);
        };
    });
}

void addPrint(CLI::App& app, Chosen& chosen) {
    CLI::App* const command =
        addCommand(app, chosen, "print", "Print all records, in the order of their numbers", printHelpCM);
    command->add_option("-o,--output", chosen.print.output, "The file to write; default: standard output")
        ->option_text("FILE")
        ->check(isName());
    command->add_flag("--no-heading", chosen.print.noHeading, "Leave out the heading");
    command->callback([&chosen] {
        chosen.command = [&chosen] {
            chosen.print.common = chosen.common;
            return print(chosen.print);
        };
    });
}

void addCheck(CLI::App& app, Chosen& chosen) {
    CLI::App* const command =
        addCommand(app, chosen, "check", "Say what a data file holds and what is wrong with it", checkHelpCM);
    command->add_option("FILE", chosen.check.file, "The data file")->option_text(" ")->required()->check(isName());
    command->add_flag("--all", chosen.check.all, "Show every rejected line, not just the first of each kind");
    command->add_flag("--json", chosen.check.json, "Write one JSON object; with --all it lists rejected lines");
    CLI::Option* const guard =
        command->add_flag("--guard", chosen.check.guard, "Hold the file against the limits in [host.guard]");
    command
        ->add_option("--live", chosen.check.live, "With --guard: as a reload, or a delta, beside so many live records")
        ->option_text("N")
        ->check(CLI::Range(std::uint64_t{0}, std::uint64_t{4'294'967'295}, "0 to 4294967295"))
        ->needs(guard);
    command->add_flag("--delta", chosen.check.delta, "With --guard: as a delta")->needs(guard);
    command->callback([&chosen] {
        chosen.command = [&chosen] {
            chosen.check.common = chosen.common;
            return check(chosen.check);
        };
    });
}

std::optional<Difference> differenceOf(std::string const& name) {
    auto const* const found = std::find(differenceNamesCM.begin(), differenceNamesCM.end(), name);
    return found == differenceNamesCM.end() ? std::nullopt
                                            : std::optional(static_cast<Difference>(found - differenceNamesCM.begin()));
}

void addDiff(CLI::App& app, Chosen& chosen) {
    DiffOptions& options = chosen.diff;
    CLI::App* const command =
        addCommand(app, chosen, "diff", "Say what has changed from one data file to another", diffHelpCM, "");
    command->add_option("OLD", options.before, "The data file before")->option_text(" ")->required()->check(isName());
    command->add_option("NEW", options.after, "The data file after")->option_text(" ")->required()->check(isName());
    command
        ->add_option("--at", options.at,
                     "When numbers must be in force; YYYYMMDDHHMMSS or YYYY-MM-DDTHH:MM:SS, UTC; default: now")
        ->option_text("INSTANT");
    CLI::Option* const list =
        command->add_option("--list", chosen.list, "List numbers: gained, lost, moved, lengthened or rewritten")
            ->option_text("WHAT");
    list->check(CLI::IsMember(std::vector<std::string>(differenceNamesCM.begin(), differenceNamesCM.end())));
    command->add_option("--memory", options.memory, "Keep records in so much memory, in MiB; default: 512")
        ->option_text("MIB")
        ->check(CLI::Range(DiffOptions::leastMemoryCM, DiffOptions::mostMemoryCM));
    CLI::Option* const json =
        command->add_flag("--json", options.json, "Write one JSON object; with --list it has the numbers, too");
    command->add_flag("--matrix", options.matrix, "Write how many numbers moved from which network to which")
        ->excludes(list)
        ->excludes(json);
    command->callback([&chosen] {
        chosen.command = [&chosen] {
            chosen.diff.common = chosen.common;
            chosen.diff.list = differenceOf(chosen.list);
            return diff(chosen.diff);
        };
    });
}

void addUpcoming(CLI::App& app, Chosen& chosen) {
    UpcomingOptions& options = chosen.upcoming;
    CLI::App* const command =
        addCommand(app, chosen, "upcoming", "List the assignments that are still to come", upcomingHelpCM, "");
    command
        ->add_option("--from", options.from,
                     "What comes after it; YYYYMMDDHHMMSS or YYYY-MM-DDTHH:MM:SS, UTC; default: now")
        ->option_text("INSTANT");
    command->add_option("--until", options.until, "What comes up to it; default: everything")->option_text("INSTANT");
    command->add_flag("--json", options.json, "Write one JSON object");
    command->callback([&chosen] {
        chosen.command = [&chosen] {
            chosen.upcoming.common = chosen.common;
            return upcoming(chosen.upcoming);
        };
    });
}

void addImport(CLI::App& app, Chosen& chosen) {
    ImportOptions& options = chosen.feed;
    CLI::App* const command = app.add_subcommand("import", "Make a data file of an operator's feed");
    command->fallthrough();
    command->footer(importHelpCM);
    command->add_option("FILE", options.file, "The feed, or '-' for standard input")
        ->option_text(" ")
        ->required()
        ->check(isName());
    command->add_option("--map", options.map, "number=COLUMN,valid-from=COLUMN,network=COLUMN (required)")
        ->option_text("MAP")
        ->required();
    command
        ->add_option("--separator", options.separator,
                     "What separates fields, one byte; 'tab' for the tab; default: by the name, or a comma")
        ->option_text("C");
    command->add_flag("--no-quotes", options.noQuotes, "Take quotation marks as bytes like others");
    command->add_flag("--no-header", options.noHeader, "The first line is a record, and columns are positions");
    command->add_option("--time-format", options.timeFormat, "How valid-from is written; default: digits")
        ->option_text("TIME");
    command
        ->add_option("--zone", options.zone,
                     "The time zone of the data, Europe/Paris; clock changes: below; default: UTC")
        ->option_text("ZONE");
    command->add_flag("--normalise", options.normalise,
                      "Take numbers in any form: national, +44..., tel: and sip: URIs; needs --config");
    command->add_option("-c,--config", chosen.common.configuration, "The configuration file with the dialling codes")
        ->option_text("FILE");
    command->add_option("-o,--output", options.output, "The data file to write; default: standard output")
        ->option_text("FILE")
        ->check(isName());
    command->add_option("--rejects", options.rejects, "List rejected records here: file, line, reason, detail, record")
        ->option_text("FILE")
        ->check(isName());
    command->add_option("--max-rejects", options.maxRejects, "Stop, and write no data, when more are rejected")
        ->option_text("N")
        ->check(isCount());
    command->add_flag("--json", options.json,
                      "The summary as one JSON object, on standard output with --output, else on standard error");
    command->callback([&chosen] {
        chosen.command = [&chosen] {
            chosen.feed.common = chosen.common;
            return importFeed(chosen.feed);
        };
    });
}

void addRun(CLI::App& app, Chosen& chosen) {
    CLI::App* const command = app.add_subcommand("run", "Serve the data as a daemon until told to stop");
    command->fallthrough();
    command->footer(runHelpCM);
    command->add_option("-c,--config", chosen.common.configuration, "The configuration file, TOML (required)")
        ->option_text("FILE")
        ->required();
    command
        ->add_option_function<std::string>(
            "--log-format", [&chosen](std::string const& format) { chosen.run.jsonLog = format == "json"; },
            "text, or json: one object a line; default: text")
        ->option_text("STYLE")
        ->check(CLI::IsMember({"text", "json"}));
    command->add_flag("--force", chosen.run.force, "Load the data file whatever the guard would say of it");
    command
        ->add_option("--log-file", chosen.run.logFile, "The file of the log; default: as configured, or standard error")
        ->option_text("FILE")
        ->check(isName());
    command->callback([&chosen] {
        chosen.command = [&chosen] {
            chosen.run.common = chosen.common;
            return runDaemon(chosen.run);
        };
    });
}

CLI::App* addCtlCommand(CLI::App& ctlApp, Chosen& chosen, std::string const& name, char const* description) {
    CLI::App* const command = ctlApp.add_subcommand(name, description);
    command->fallthrough();
    command->callback([&chosen, name] {
        chosen.ctl.command = name;
        chosen.command = [&chosen] {
            chosen.ctl.configuration = chosen.common.configuration;
            return ctl(chosen.ctl);
        };
    });
    return command;
}

void addCtlQuestions(CLI::App& ctlApp, Chosen& chosen) {
    CtlOptions& options = chosen.ctl;
    addCtlCommand(ctlApp, chosen, "status", "Say how the daemon stands");
    CLI::App* const lookupCommand =
        addCtlCommand(ctlApp, chosen, "lookup", "Say to which network numbers belonged at an instant");
    CLI::App* const explainCommand =
        addCtlCommand(ctlApp, chosen, "explain", "Show what is stored of a number, what is chosen and why");
    lookupCommand->add_option("NUMBER", options.numbers, "The numbers")->option_text("...")->required();
    lookupCommand->add_option("--method", options.method, "best, exact or shortest; default: as configured")
        ->option_text("METHOD")
        ->check(CLI::IsMember({"best", "exact", "shortest"}));
    explainCommand->add_option("NUMBER", options.numbers, "The number")->option_text(" ")->required()->expected(1);
    for (CLI::App* const command : {lookupCommand, explainCommand}) {
        refuseLists(*command, notANumberCM);
        command->add_option("--at", options.at, "YYYYMMDDHHMMSS or YYYY-MM-DDTHH:MM:SS, UTC; default: now")
            ->option_text("INSTANT");
        command->add_flag("--normalise", options.normalise, "Take numbers as people write them");
    }
    addCtlCommand(ctlApp, chosen, "probes", "List the plug-in's probes");
    addCtlCommand(ctlApp, chosen, "log", "Show the latest reports of the log")
        ->add_flag("--follow", options.follow, "Go on with those to come");
}

void addCtlRequests(CLI::App& ctlApp, Chosen& chosen) {
    CtlOptions& options = chosen.ctl;
    CLI::App* const reload = addCtlCommand(ctlApp, chosen, "reload", "Reload the data file");
    reload->add_flag("--no-reuse", options.noReuse, "Keep the old data when the last line of the file is no record");
    CLI::App* const delta =
        addCtlCommand(ctlApp, chosen, "delta", "Add the records of a file, and rewrite the data file");
    delta->add_option("FILE", options.file, "The file")->option_text(" ")->required()->check(isName());
    CLI::App* const listing = addCtlCommand(ctlApp, chosen, "print", "Print the records with their heading");
    listing->add_option("FILE", options.file, "The file to write; default: the daemon's standard output")
        ->option_text(" ")
        ->check(isName());
    for (CLI::App* const command : {reload, delta, listing}) {
        CLI::Option* const wait = command->add_flag_callback(
            "--wait", [&options] { options.wait = true; }, "Wait for the outcome and show it; default on a terminal");
        command
            ->add_flag_callback(
                "--no-wait", [&options] { options.wait = false; }, "Do not wait; default where there is no terminal")
            ->excludes(wait);
    }
    CLI::App* const update =
        addCtlCommand(ctlApp, chosen, "update", "Carry out a registry update and show what it reports");
    update->add_option("KEY=VALUE", options.keys, "Reload, ReuseOnFailure, AdditionalNumPortData, PrintData")
        ->option_text("...")
        ->required();
    refuseLists(*update, "is not KEY=VALUE");
    for (CLI::App* const command : {reload, delta, update})
        command->add_flag("--force", options.force, "Load the file whatever the guard would say of it");
}

void addCtl(CLI::App& app, Chosen& chosen) {
    CLI::App* const command = app.add_subcommand("ctl", "Ask or command a daemon that 'nphost run' started");
    command->fallthrough();
    command->require_subcommand(1);
    command->footer(ctlHelpCM);
    CLI::Option* const socket =
        command->add_option("-s,--socket", chosen.ctl.socket, "The daemon's control socket")->option_text("PATH");
    command->add_option("-c,--config", chosen.common.configuration, "The configuration file that names it")
        ->option_text("FILE")
        ->excludes(socket);
    command->add_flag("--json", chosen.ctl.json, "Show the daemon's answer, one JSON object a line");
    addCtlQuestions(*command, chosen);
    addCtlRequests(*command, chosen);
}

std::string reasonOf(CLI::App const& app, CLI::ParseError const& error) {
    std::vector<CLI::App*> const chosen = app.get_subcommands();
    CLI::App const& last = chosen.empty() ? app : *chosen.front();
    bool const lacksCommand = last.get_require_subcommand_min() > 0 && last.get_subcommands().empty();
    if (!lacksCommand)
        return error.what();
    std::vector<std::string> const rest = app.remaining(true);
    return rest.empty() ? "a command is required" : "there is no command or option '" + rest.front() + "'";
}

// Help and version. What cannot be written is an error, as a result is.
int show(CLI::App const& app, CLI::ParseError const& error) {
    std::ostringstream text;
    app.exit(error, text, text);
    Output out(STDOUT_FILENO);
    out.append(text.view());
    out.flush();
    return FINE;
}

int parse(CLI::App& app, int argc, char const* const* argv) {
    try {
        app.parse(argc, argv);
        return FINE;
    } catch (CLI::ParseError const& error) {
        if (error.get_exit_code() == 0)
            return show(app, error);
        complain(reasonOf(app, error) + " (see 'nphost --help')");
        return FAILED;
    }
}

int runChecked(int argc, char const* const* argv) {
    Chosen chosen;
    CLI::App app("Says to which network a telephone number belonged at an instant.", "nphost");
    app.set_version_flag("--version", "nphost " NP_VERSION, "Print the version and exit");
    app.add_flag("-v,--verbose", chosen.common.verbose, "Show the whole log on standard error");
    app.require_subcommand(1);
    app.footer(std::string(programHelpCM) + exitStatusCM);
    addLookup(app, chosen);
    addEnrich(app, chosen);
    addPrint(app, chosen);
    addCheck(app, chosen);
    addDiff(app, chosen);
    addUpcoming(app, chosen);
    addImport(app, chosen);
    addRun(app, chosen);
    addCtl(app, chosen);
    int const status = parse(app, argc, argv);
    return status == FINE && chosen.command ? unlessInterrupted(chosen.command) : status;
}

} // namespace

int run(int argc, char const* const* argv) noexcept {
    try {
        return runChecked(argc, argv);
    } catch (std::bad_alloc const&) {
        complain("out of memory");
    } catch (std::system_error const& error) {
        bool const lacksThread = error.code() == std::errc::resource_unavailable_try_again; // for want of memory, too
        complain((lacksThread ? "a thread cannot be started: " : "") + std::string(error.what()));
    } catch (std::exception const& error) {
        auto const* const system = dynamic_cast<std::system_error const*>(&error);
        bool const noThread = system != nullptr && system->code() == std::errc::resource_unavailable_try_again;
        complain(std::string(noThread ? "no thread can be made: " : "") + error.what());
    }
    return FAILED;
}

} // namespace nphost
