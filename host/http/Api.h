// nphost::Api: the routes of the HTTP front: which request gets which answer.
//
// Purpose: free of any transport, so that it is tested without one. A request without a body is answered at once; one
// whose body matters gets a BodySink; one that commands the daemon becomes a line of the control protocol, whose answer
// the server waits for and turns into a response (answered); what would hold up other requests is left to the server
// as work.
// Ownership: borrows all its parts.
// Threads: one at a time; the server has one for each of its threads.
// Errors: what is wrong with a request is its response; std::bad_alloc and std::system_error travel.
// Complexity: that of the look-ups.
#pragma once

#include "host/http/Request.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace nphost {

struct FrontParts;
struct HttpSettings;
class BodySink;
class HttpShared;

// What comes next for a request.
struct Step {
    enum Kind { ANSWER, BODY, COMMAND, WORK };

    Kind kind = ANSWER;
    Response response;              // ANSWER
    std::unique_ptr<BodySink> sink; // BODY: takes it
    std::string command;            // COMMAND: a line of the control protocol,
    bool asksOnly = false;          // which changes nothing
    std::shared_ptr<void> held;     // until the command's answer is there
    std::function<Response()> work; // WORK: takes its time, and may be called by any thread

    std::string headers;    // of whatever answer comes of it: whole lines with CRLF
    char const* route = ""; // for the access log: the path without the number
    std::string client;     // the token's or certificate's name; empty: nobody in particular
};

// Takes a request's body.
class BodySink {
  public:
    virtual ~BodySink() = default;
    virtual std::uint64_t mostBytes() const = 0;
    // The type of a response that is written while the body comes in; null when it comes afterwards.
    virtual char const* streams() const { return nullptr; }
    // Takes a piece, and appends what it has to answer already, if it streams. False: no more is taken, and end says why.
    virtual bool take(std::string_view piece, std::string& out) = 0;
    // The body is over. A stream's rest is appended; of others the step is what comes next.
    virtual Step end(std::string& out) = 0;
    // Look-ups that a stream has made since the last call, for the counters.
    struct Counts {
        std::uint64_t found = 0;
        std::uint64_t notFound = 0;
    };
    virtual Counts takeCounts() { return {}; }
};

class Api {
  public:
    Api(FrontParts const& parts, HttpShared& shared);
    Api(Api const&) = delete;
    Api& operator=(Api const&) = delete;
    ~Api();

    Step handle(Request const& request);
    // Single look-ups that were made since the last call, for the counters.
    BodySink::Counts takeCounts();
    // The answer's line of a command.
    static Response answered(std::string line);

  private:
    class Impl;
    std::unique_ptr<Impl> implM;
};

} // namespace nphost
