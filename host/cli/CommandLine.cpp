#include "host/cli/CommandLine.h"

#include "host/base/Arguments.h"
#include "host/base/ExitStatus.h"
#include "host/base/Interruption.h"
#include "host/base/StandardError.h"
#include "host/cli/Sections.h"
#include "host/config/CommonOptions.h"
#include "host/daemon/CtlCommand.h"
#include "host/daemon/RunCommand.h"
#include "host/diff/DiffCommand.h"
#include "host/dns/EnumCommand.h"
#include "host/enrich/EnrichCommand.h"
#include "host/import/ImportCommand.h"
#include "host/lookup/CheckCommand.h"
#include "host/lookup/LookupCommand.h"
#include "host/lookup/PrintCommand.h"
#include "host/lookup/UpcomingCommand.h"

#include <exception>
#include <new>
#include <string>
#include <system_error>

namespace nphost {

namespace {

constexpr char const* programHelpCM = R"('nphost COMMAND --help' explains a command. To begin with:
  nphost check  --config examples/nphost.toml examples/portability.dat
  nphost lookup --config examples/nphost.toml --at 20240615120000 00447700900123

)";

// In the order of the help.
constexpr Command const* commandsCM[] = {&lookupCommandCM, &enrichCommandCM,   &printCommandCM,  &checkCommandCM,
                                         &diffCommandCM,   &upcomingCommandCM, &importCommandCM, &enumCommandCM,
                                         &runCommandCM,    &ctlCommandCM};

int runChecked(int argc, char const* const* argv) {
    // Outlives the parser and what it has chosen: commands write into it and read from it when they run.
    CommonOptions common;
    common.sections = sectionsCM;
    ArgumentParser parser("Says to which network a telephone number belonged at an instant.", "nphost",
                          "nphost " NP_VERSION);
    parser.top().flag("-v,--verbose", common.verbose, "Show the whole log on standard error");
    parser.top().footer(std::string(programHelpCM) + exitStatusHelpCM);
    for (Command const* const command : commandsCM) {
        Arguments arguments = parser.top().command(command->name, command->description);
        command->declare(arguments, common);
    }
    // The parser, too, may be interrupted: help goes to whoever reads, or reads no more.
    return unlessInterrupted([&] {
        int status = FINE;
        Arguments::Run const chosen = parser.parse(argc, argv, status);
        return chosen ? chosen() : status;
    });
}

} // namespace

// The one place in which exceptions become messages: no command writes its own end.
int run(int argc, char const* const* argv) noexcept {
    try {
        return runChecked(argc, argv);
    } catch (std::bad_alloc const&) {
        complain("out of memory");
    } catch (std::system_error const& error) {
        bool const lacksThread = error.code() == std::errc::resource_unavailable_try_again; // for want of memory, too
        complain((lacksThread ? "a thread cannot be started: " : "") + std::string(error.what()));
    } catch (std::exception const& error) {
        complain(error.what());
    }
    return FAILED;
}

} // namespace nphost
