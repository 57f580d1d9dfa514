// nphost::Arguments: the command line, as the commands declare it.
//
// Purpose: a command says which options and positional arguments it takes, into which places their values go, and what
// runs it; the parser turns the program's arguments into that, or into one line on standard error. It is a facade over
// CLI11, which is compiled in one file.
// Ownership: places, names and texts are borrowed until the parser is gone; an Arguments and an Option refer to the
// parser.
// Threads: the main thread.
// Errors: std::bad_alloc; a wrong declaration (a name that is taken) throws a CLI::Error. parse throws HostError for an
// argument that refuseLists refuses, and when help cannot be written; Interrupted when nobody reads it; and what the
// functions that take values throw.
// Complexity: linear in the options and arguments.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace nphost {

struct CommonOptions;

// One option or positional argument that was declared.
class Option {
  public:
    explicit Option(CLI::Option* option) : optionM(option) {}

    Option& required();
    // Each occurrence takes one value; one of several values takes as many as come.
    Option& single();
    Option& exactly(int values);
    Option& separatedBy(char separator);
    Option& among(std::vector<std::string> const& values);
    // An empty name is refused, as a script's variable that is not set leaves it.
    Option& named();
    // Digits alone, up to 2^64 - 1: no sign.
    Option& count();
    Option& between(std::uint64_t least, std::uint64_t most, std::string const& shown = {});
    Option& excludes(Option const& other);
    Option& needs(Option const& other);

  private:
    CLI::Option* optionM;
};

// One command's.
class Arguments {
  public:
    using Run = std::function<int()>;

    Arguments(CLI::App& app, Run& chosen) : appM(app), chosenM(chosen) {}

    // A value. `names` are such as "-o,--output", or "FILE" of a positional one; `shown` stands behind them in the
    // help. Places are texts, also optional and in lists, paths, unsigned numbers and optional std::uint64_t.
    template <class Place>
    Option add(std::string const& names, std::string const& shown, Place& place, std::string const& help);
    // A value that `take` is given as it was written.
    Option read(std::string const& names, std::string const& shown, std::function<void(std::string const&)> const& take,
                std::string const& help);
    Option flag(std::string const& names, bool& place, std::string const& help);
    Option flag(std::string const& names, std::function<void()> const& given, std::string const& help);

    // Refuses positional arguments in brackets, for a reason behind them: the library makes a list of one where there
    // may be several, and '[a.csv]' would be another file.
    void refuseLists(char const* why);

    // What the help says behind the options.
    void footer(std::string const& text);

    // What happens when the command is chosen: the result is the exit status.
    void runs(Run run);

    // A command of the command, one of which must then be chosen.
    Arguments command(std::string const& name, std::string const& description);

  private:
    CLI::App& appM;
    Run& chosenM;
};

// A command of the program. `declare` is called before anything is parsed; the common options (config/CommonOptions.h)
// are filled when the command runs.
struct Command {
    char const* name;
    char const* description;
    void (*declare)(Arguments& arguments, CommonOptions& common);
};

class ArgumentParser {
  public:
    ArgumentParser(std::string const& description, std::string const& program, std::string const& version);
    ArgumentParser(ArgumentParser const&) = delete;
    ArgumentParser& operator=(ArgumentParser const&) = delete;
    ~ArgumentParser();

    Arguments& top() { return topM; }

    // What the arguments choose to run. None when that was help or the version, which is then written, or when they are
    // wrong, which a line on standard error then says; `status` is the exit status of both.
    Arguments::Run parse(int argc, char const* const* argv, int& status);

  private:
    std::unique_ptr<CLI::App> appM;
    Arguments::Run chosenM;
    Arguments topM;
};

// For footers: what the exit statuses mean of a command that has none of its own.
extern char const* const exitStatusHelpCM;

} // namespace nphost
