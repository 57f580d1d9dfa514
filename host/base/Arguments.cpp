#include "host/base/Arguments.h"

#include "host/base/ExitStatus.h"
#include "host/base/HostError.h"
#include "host/base/Output.h"
#include "host/base/StandardError.h"
#include "host/base/Text.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <optional>
#include <sstream>
#include <unistd.h>
#include <utility>

namespace nphost {

namespace {

// The library would take -1 for the largest number.
std::string faultOfCount(std::string const& text) {
    std::uint64_t number = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    bool const whole = error == std::errc() && end == text.data() + text.size();
    return whole ? std::string() : "'" + text + "' is not a number from 0 to 18446744073709551615";
}

std::string faultOfName(std::string const& text) {
    return text.empty() ? "the name is empty" : "";
}

std::string reasonOf(CLI::App const& app, CLI::ParseError const& error) {
    std::vector<CLI::App*> const chosen = app.get_subcommands();
    // The library's own words for a missing command say nothing of what stands in its place.
    CLI::App const& last = chosen.empty() ? app : *chosen.front();
    bool const lacksCommand = last.get_require_subcommand_min() > 0 && last.get_subcommands().empty();
    if (!lacksCommand)
        return error.what();
    // What is left over is what was meant for the command: it is the best hint at what is wrong.
    std::vector<std::string> const rest = app.remaining(true);
    return rest.empty() ? "a command is required" : "there is no command or option '" + rest.front() + "'";
}

// Help and version. What cannot be written is an error, as a result is.
void show(CLI::App const& app, CLI::ParseError const& error) {
    std::ostringstream text;
    app.exit(error, text, text);
    // Help goes to standard output, for it was asked for, and through Output, which tells of a disk that is full.
    Output out(STDOUT_FILENO);
    out.append(text.view());
    out.flush();
}

} // namespace

Option& Option::required() {
    optionM->required();
    return *this;
}

Option& Option::single() {
    // Else an option with a list would take all arguments behind it, positional ones too.
    optionM->allow_extra_args(false);
    return *this;
}

Option& Option::exactly(int values) {
    optionM->expected(values);
    return *this;
}

Option& Option::separatedBy(char separator) {
    optionM->delimiter(separator);
    return *this;
}

Option& Option::among(std::vector<std::string> const& values) {
    optionM->check(CLI::IsMember(values));
    return *this;
}

Option& Option::named() {
    optionM->check(CLI::Validator(faultOfName, "", "name"));
    return *this;
}

Option& Option::count() {
    optionM->check(CLI::Validator(faultOfCount, "", "count"));
    return *this;
}

Option& Option::between(std::uint64_t least, std::uint64_t most, std::string const& shown) {
    optionM->check(CLI::Range(least, most, shown));
    return *this;
}

Option& Option::excludes(Option const& other) {
    optionM->excludes(other.optionM);
    return *this;
}

Option& Option::needs(Option const& other) {
    optionM->needs(other.optionM);
    return *this;
}

// The library knows from the place's type what to read, and how to refuse it.
template <class Place>
Option Arguments::add(std::string const& names, std::string const& shown, Place& place, std::string const& help) {
    return Option(appM.add_option(names, place, help)->option_text(shown));
}

// All places that commands use: so the library's header, which takes long to compile, is read in this file alone.
template Option Arguments::add(std::string const&, std::string const&, std::string&, std::string const&);
template Option Arguments::add(std::string const&, std::string const&, std::optional<std::string>&, std::string const&);
template Option Arguments::add(std::string const&, std::string const&, std::vector<std::string>&, std::string const&);
template Option Arguments::add(std::string const&, std::string const&, std::filesystem::path&, std::string const&);
template Option Arguments::add(std::string const&, std::string const&, unsigned int&, std::string const&);
template Option Arguments::add(std::string const&, std::string const&, std::optional<std::uint64_t>&,
                               std::string const&);

Option Arguments::read(std::string const& names, std::string const& shown,
                       std::function<void(std::string const&)> const& take, std::string const& help) {
    // The text is taken as it stands: the library must not read numbers or lists in it.
    return Option(appM.add_option_function<std::string>(names, take, help)->option_text(shown));
}

Option Arguments::flag(std::string const& names, bool& place, std::string const& help) {
    return Option(appM.add_flag(names, place, help));
}

Option Arguments::flag(std::string const& names, std::function<void()> const& given, std::string const& help) {
    return Option(appM.add_flag_callback(names, given, help));
}

void Arguments::refuseLists(char const* why) {
    // To the library a text in brackets is a list.
    auto const check = [why](std::string const& text) {
        if (text.starts_with('[') && text.ends_with(']'))
            throw HostError("'" + shortened(text) + "' " + why);
        return std::string();
    };
    appM.validate_positionals(); // before they are split, too
    for (CLI::Option* const option : appM.get_options())
        if (option->get_positional())
            option->check(CLI::Validator(check, ""));
}

void Arguments::footer(std::string const& text) {
    appM.footer(text);
}

void Arguments::runs(Run run) {
    // Only noted here: the command runs when the library is done, and what it throws passes through none of it.
    appM.callback([&chosen = chosenM, run = std::move(run)] { chosen = run; });
}

Arguments Arguments::command(std::string const& name, std::string const& description) {
    CLI::App* const app = appM.add_subcommand(name, description);
    app->fallthrough(); // so that options of the program may also follow the command
    // Exactly one: the library would carry out several.
    appM.require_subcommand(1);
    return {*app, chosenM};
}

ArgumentParser::ArgumentParser(std::string const& description, std::string const& program, std::string const& version)
    : appM(std::make_unique<CLI::App>(description, program)), topM(*appM, chosenM) {
    appM->set_version_flag("--version", version, "Print the version and exit");
}

ArgumentParser::~ArgumentParser() = default;

Arguments::Run ArgumentParser::parse(int argc, char const* const* argv, int& status) {
    status = FINE;
    try {
        appM->parse(argc, argv);
        return chosenM;
    } catch (CLI::ParseError const& error) {
        // Help and version come as exceptions, too.
        if (error.get_exit_code() == 0) {
            show(*appM, error);
        } else {
            complain(reasonOf(*appM, error) + " (see 'nphost --help')");
            status = FAILED;
        }
    }
    return {};
}

char const* const exitStatusHelpCM = R"(Exit status:
  0  fine: everything found, the file is clean, or (enrich) every record could be used
  1  a number without a record, a line that is no question, a file with rejected lines,
     rejected records (enrich, import), files that differ, a ctl command that failed
  2  a usage, configuration or file error; one line on standard error says which
  3  'check --guard': the guard would refuse the file; 'run': it refuses the first load)";

} // namespace nphost
