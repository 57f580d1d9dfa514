// What the daemon and its clients agree on: one JSON object a line, both ways (docs/operations.md).
//
// Purpose: the version, the bounds, and how an object becomes a line.
// Threads: no state.
// Errors: std::bad_alloc.
// Complexity: linear in the object.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <stdexcept>
#include <string>

namespace nphost {

constexpr int protocolVersionCM = 1;
constexpr std::size_t mostRequestBytesCM = 64UL * 1024; // with its newline
constexpr std::size_t mostLookupNumbersCM = 1000;       // in one request
constexpr std::size_t mostExplainBytesCM = 1000;        // of a number
constexpr std::size_t recentReportsCM = 100;            // that a client of the log gets first

// Why a request is refused; the client gets what() in an error object.
class RequestError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Adds the version, writes the object on one line and ends it; bytes that are not UTF-8 are replaced.
std::string lineOf(nlohmann::json object);

// {"ok": false, "error": reason}
std::string errorLine(std::string const& reason);

} // namespace nphost
