// nphost ctl: asks a daemon through its control socket.
//
// Purpose: one request a call, and its answer for people or, with `json`, as the daemon gave it.
// Threads: one thread.
// Errors: HostError when no daemon answers, when it refuses the request, or when the answer cannot be written;
// ConfigurationError; std::bad_alloc.
// Complexity: linear in the answer. Look-ups of many numbers are sent in several requests.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace nphost {

struct CtlOptions {
    std::filesystem::path socket;        // or
    std::filesystem::path configuration; // which names it
    bool json = false;

    std::string command;
    std::vector<std::string> numbers;
    std::optional<std::string> at;
    std::optional<std::string> method;
    bool normalise = false;
    bool noReuse = false;
    bool force = false;
    bool follow = false;
    std::optional<bool> wait; // none: when standard output is a terminal
    std::string file;
    std::vector<std::string> keys; // KEY=VALUE
};

// The exit status.
int ctl(CtlOptions const& options);

} // namespace nphost
