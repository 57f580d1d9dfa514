// nphost::Front: a network front as the daemon sees it, and what the daemon lends it.
//
// Purpose: a front answers questions over a network with the calls of host/service, beside the control socket. One that
// needs libraries of its own is a shared object that is loaded only when it is configured (daemon/LoadedFront.h): it has
// one exported C function, NumberPortabilityFront, which gives a table (service/FrontTable.h). Host and front are built
// together: a table of another build is refused.
// Ownership: the daemon owns the front and outlives it; what FrontParts refers to outlives the front.
// Threads: the daemon's loop calls; a front has threads of its own, and lets none of its requests hold the loop up.
// Errors: making one tells the reason in one line; the other calls throw nothing.
// Complexity: the calls return at once, but for stop.
#pragma once

#include "host/base/PassedSockets.h"

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace nphost {

class Configuration;
class DataClock;
class LoadedPlugIn;
class Metrics;
class Networks;
class NumberForm;
class Service;

// Commands from the threads of fronts: a line of the control protocol (docs/operations.md), as `ctl` sends it.
class CommandPost {
  public:
    // Called once, on the loop's thread, with the answer's line; never when the daemon stops before. It throws nothing.
    using Answer = std::function<void(std::string line)>;

    virtual ~CommandPost() = default;
    // Who only asks must not keep out who commands: they wait in places of their own.
    enum Kind { QUESTION, COMMAND };
    // False when too many of the kind wait, or the daemon stops.
    virtual bool post(Kind kind, std::string request, Answer answer) = 0;
};

struct FrontParts {
    Configuration const& configuration;
    std::vector<std::filesystem::path> const& deltaFolders; // where deltas may lie
    Service& service;
    LoadedPlugIn& plugIn; // for look-ups, many at once
    NumberForm const& numbers;
    Networks const& networks;
    DataClock const& clock;
    Metrics& metrics;
    CommandPost& commands;
    std::vector<PassedSocket> const& sockets; // of the front's name; they become its own
    std::string version;                      // of the program
};

class Front {
  public:
    virtual ~Front() = default;
    // What stands in files of its own (tokens, certificates) is read again; what is wrong is reported, and the old
    // serves on. False when something was. Called by the lane of loads.
    virtual bool reread() noexcept = 0;
    // No further connections; requests under way are answered, and connections end with that.
    virtual void beginStop() noexcept = 0;
    // No command will be answered any more. Returns when all connections have ended, which takes some seconds at the most.
    virtual void stop() noexcept = 0;
};

} // namespace nphost
