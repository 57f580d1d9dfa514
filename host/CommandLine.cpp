#include "host/CommandLine.h"

#include "host/CheckCommand.h"
#include "host/ExitStatus.h"
#include "host/LookupCommand.h"
#include "host/PrintCommand.h"
#include "host/StandardError.h"

#include <CLI/CLI.hpp>
#include <exception>
#include <functional>
#include <new>
#include <string>
#include <vector>

namespace nphost {

namespace {

constexpr char const* exitStatusCM = R"(Exit status:
  0  fine: everything found, or the file is clean
  1  a number without a record, a line that is no question, or a file with rejected lines
  2  a usage, configuration or file error; one line on standard error says which)";

constexpr char const* programHelpCM = R"('nphost COMMAND --help' explains a command. To begin with:
  nphost check  --config examples/nphost.toml examples/portability.dat
  nphost lookup --config examples/nphost.toml --at 20240615120000 00447700900123

)";

constexpr char const* lookupHelpCM =
    R"(Prints one line a number: number, instant, valid-from and network, separated by
tabs; '-' for the last two when no record holds.

Numbers are taken in stored form: international access code, country code and
national number, as 00447700900123. With --normalise they may be written as people
do, '07700 900-123' or '+44 7700 900123' (without the zero of '+44 (0)7700'): blanks,
hyphens, dots and parentheses are removed and the configured dialling codes applied;
the answer shows the stored form.

Methods: 'best' takes the longest stored prefix that has a record for the instant,
'exact' the number itself, 'shortest' the shortest stored prefix and no other.

With '-' in place of the numbers, questions are read from standard input, one a line:
number and, if wanted, instant and method (0 best, 1 exact, 2 shortest), separated by
tabs; further columns are ignored. Answers keep the order of the questions and are
written at the latest when the input pauses.

Examples:
  nphost lookup --config examples/nphost.toml --at 20240615120000 00447700900123
  nphost lookup --config examples/nphost.toml --normalise '07700 900123'
  nphost lookup --config examples/nphost.toml - < examples/queries.tsv

)";

constexpr char const* printHelpCM =
    R"(Without the heading the listing is a data file again: sorted, in stored form and
without bad lines.

Examples:
  nphost print --config examples/nphost.toml
  nphost print --config examples/nphost.toml --no-heading --output clean.dat

)";

constexpr char const* checkHelpCM =
    R"(Reads the data file as a load would, by the dialling codes of the configuration,
without serving it. The data file that the configuration names is not touched and
need not exist.

Example:
  nphost check --config examples/nphost.toml examples/portability.dat

)";

// All options of all commands, and the command that was chosen.
struct Chosen {
    CommonOptions common;
    LookupOptions lookup;
    PrintOptions print;
    CheckOptions check;
    std::string method;
    std::function<int()> command;
};

CLI::App* addCommand(CLI::App& app, Chosen& chosen, char const* name, char const* description,
                     char const* help) {
    CLI::App* const command = app.add_subcommand(name, description);
    command->fallthrough(); // so that --verbose may also follow the command
    command->footer(std::string(help) + exitStatusCM);
    command->add_option("-c,--config", chosen.common.configuration, "The configuration file, TOML (required)")
        ->option_text("FILE")
        ->required();
    return command;
}

unsigned int methodOf(std::string const& name) {
    return name == "exact" ? 1 : name == "shortest" ? 2 : 0;
}

void addLookup(CLI::App& app, Chosen& chosen) {
    LookupOptions& options = chosen.lookup;
    CLI::App* const command = addCommand(app, chosen, "lookup",
                                         "Say to which network numbers belonged at an instant", lookupHelpCM);
    command->add_option("NUMBER", options.numbers, "The numbers, or '-' alone for standard input")
        ->option_text("...")
        ->required();
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
                chosen.lookup.method = methodOf(chosen.method);
            return lookup(chosen.lookup);
        };
    });
}

void addPrint(CLI::App& app, Chosen& chosen) {
    CLI::App* const command =
        addCommand(app, chosen, "print", "Print all records, in the order of their numbers", printHelpCM);
    command->add_option("-o,--output", chosen.print.output, "The file to write; default: standard output")
        ->option_text("FILE");
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
    command->add_option("FILE", chosen.check.file, "The data file")->option_text(" ")->required();
    command->add_flag("--all", chosen.check.all, "Show every rejected line, not just the first of each kind");
    command->add_flag("--json", chosen.check.json,
                      "Write one JSON object; with --all it lists rejected lines");
    command->callback([&chosen] {
        chosen.command = [&chosen] {
            chosen.check.common = chosen.common;
            return check(chosen.check);
        };
    });
}

std::string reasonOf(CLI::App const& app, CLI::ParseError const& error) {
    std::vector<std::string> const rest = app.remaining();
    if (app.get_subcommands().empty())
        return rest.empty() ? "a command is required"
                            : "there is no command or option '" + rest.front() + "'";
    return error.what();
}

int parse(CLI::App& app, int argc, char const* const* argv) {
    try {
        app.parse(argc, argv);
        return FINE;
    } catch (CLI::ParseError const& error) {
        if (error.get_exit_code() == 0) // help and version
            return app.exit(error);
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
    addPrint(app, chosen);
    addCheck(app, chosen);
    int const status = parse(app, argc, argv);
    return status == FINE && chosen.command ? chosen.command() : status;
}

} // namespace

int run(int argc, char const* const* argv) noexcept {
    try {
        return runChecked(argc, argv);
    } catch (std::bad_alloc const&) {
        complain("out of memory");
    } catch (std::exception const& error) {
        complain(error.what());
    }
    return FAILED;
}

} // namespace nphost
