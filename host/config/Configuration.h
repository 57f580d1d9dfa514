// nphost::Configuration: what the configuration file says.
//
// Purpose: the file is TOML. The table [DAT_NumberPortability] becomes the plug-in's registry subtree, key by key; the
// table [host] is the host's own and optional, as are its keys:
//
//     [DAT_NumberPortability]
//     FileName = "portability.dat"          # the data file
//     CountryCode = "44"                    # codes are quoted, so that none loses a leading zero
//     NationalAccessCode = "0"
//     InternationalAccessCode = "00"        # optional, as the two below
//     InternationalAccessCodeSign = "+"
//     SearchMethod = 0                      # 0 best match, 1 exact, 2 shortest prefix; a text or an integer
//
//     [host]
//     module = "lib/DAT_NumberPortability.so"   # a name without a slash is searched for as the system does
//     messages = "messages.toml"                # the texts of the log
//     probeFolder = "lib"                       # where the probe definition file lies
//     socket = "nphost.socket"                  # where the daemon is asked; without it there is no control socket
//     logFile = "nphost.log"                    # the daemon's log; without it standard error
//     announceChanges = true                    # the daemon tells when assignments take effect; false without it
//     deltaFolders = ["deltas"]                 # below which a delta may lie; the data file's folder without it
//     clients = ["lib/rating.so"]               # the daemon's client modules; names without a slash as for the module
//
//     [host.guard]                     # what a data file must be like to be loaded by the daemon; GuardLimits.h
//     maxLossPercent = 5               # percentages have at most three decimals
//     maxRejectedPercent = 0.5
//     maxNumbersWithoutDigits = 0
//     minRecords = 1000000             # 1 when it is not given; 0 asks for none
//     requireCompleteLastLine = true
//     maxMemoryMiB = 2048
//
// Relative paths are taken from the configuration file's folder. Whether a key of the plug-in's is missing is the
// plug-in's business, not checked here.
// Ownership: values.
// Threads: no state.
// Complexity: linear in the text.
// Errors: ConfigurationError for what is not TOML, an unknown table or key, a value of the wrong type or an unusable
// path; std::bad_alloc; nothing else.
#pragma once

#include "framework/BAS/RegistryEntry.h"
#include "host/config/ConfigurationError.h"
#include "host/config/GuardLimits.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace nphost {

// The plug-in's registered name and table.
constexpr char const* plugInNameCM = "DAT_NumberPortability";

struct Configuration {
    BAS::RegistryEntry registry{BAS::String()}; // root entry; its child is the plug-in's subtree, if it is there
    std::filesystem::path module;               // the host's own are empty when not given
    std::filesystem::path messages;
    std::filesystem::path probeFolder;
    std::filesystem::path socket;
    std::filesystem::path logFile;
    bool announceChanges = false;
    std::optional<std::vector<std::filesystem::path>> deltaFolders; // none: the data file's folder
    GuardLimits guard;
    std::vector<std::filesystem::path> clients;

    // What the plug-in is told is its data file; empty when it is told none.
    std::string dataFile() const;
    // Tells the plug-in another one.
    void useDataFile(std::string const& file);
};

Configuration parseConfiguration(std::string_view text, std::filesystem::path const& file);
// Also HostError when standard error is the configuration or the data file that it names: messages would go into it.
Configuration readConfiguration(std::filesystem::path const& file);

} // namespace nphost
