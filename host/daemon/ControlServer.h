// nphost::ControlServer: the daemon's connections to its clients.
//
// Purpose: takes connections, cuts what arrives into lines, hands each line to the handler and writes the answers; all
// of it without ever waiting for a client:
// - a line of more than mostRequestBytesCM, and one that is not finished within stallTimeCM, is answered with an error
//   object, and the connection closed;
// - while a client has much unread output no more of its requests are read; one that reads nothing for stallTimeCM, or
//   that follows the log and falls mostUnreadCM behind, is dropped;
// - a client without a request for idleTimeCM is dropped; above mostClientsCM new ones are turned away.
// A client that has ended its sending still gets the answers to what it sent.
// Ownership: borrows the listening socket and the handler; owns the connections.
// Threads: the loop's thread.
// Errors: none but of construction, which throws std::bad_alloc: a connection that fails, or that memory does not suffice
// for, is closed.
// Complexity: linear in the bytes and the clients.
#pragma once

#include "host/net/UnixSocket.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <poll.h>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace nphost {

class ControlServer {
  public:
    using Client = std::uint64_t;
    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t mostClientsCM = 32;
    static constexpr std::size_t mostPolledCM = mostClientsCM + 1; // that collect appends
    static constexpr std::size_t mostUnreadCM = 1024UL * 1024;
    static constexpr std::chrono::seconds stallTimeCM{5};
    static constexpr std::chrono::minutes idleTimeCM{10};

    class Handler {
      public:
        virtual ~Handler() = default;
        // One request, without its newline. The handler answers now or later, with one send.
        virtual void request(Client client, std::string_view line) = 0;
    };

    using TimeSource = std::function<Clock::time_point()>;
    ControlServer(ListeningSocket& socket, Handler& handler, TimeSource now = Clock::now)
        : socketM(socket), handlerM(handler), nowM(std::move(now)) {}

    // Appends what to wait for.
    void collect(std::vector<pollfd>& polled) const;
    // Serves what poll found, and closes connections whose time is over.
    void serve(std::vector<pollfd> const& polled);
    // Whether a request could be taken or a connection closed at once, so that poll must not wait at all.
    bool hasReady() const;
    // Whether a connection may be closed for its time, so that poll must not wait for ever.
    bool hasTimes() const { return !connectionsM.empty() || acceptPausedM; }

    // Ignored when the client has gone. `more`: further lines will come without a request for each.
    void send(Client client, std::string_view line, bool more = false) noexcept;

    bool has(Client client) const {
        auto const found = connectionsM.find(client);
        return found != connectionsM.end() && !found->second.dropped;
    }

    // Writes what can be written at once and closes the connections.
    void close();

  private:
    struct Connection {
        FileDescriptor descriptor;
        std::string input;
        std::string output;
        std::size_t written = 0; // of the output
        bool inputEnded = false;
        bool awaited = false;   // the handler owes an answer
        bool following = false; // gets lines without asking
        bool closing = false;   // when the output is written
        bool dropped = false;
        Clock::time_point lastMove; // of bytes in either direction that it had to make
    };

    void acceptAll();
    void take(FileDescriptor descriptor);
    static void turnAway(FileDescriptor descriptor);
    void serveOne(Client client, Connection& connection, int happened, Clock::time_point now);
    void read(Connection& connection);
    void answer(Client client, Connection& connection);
    static bool isReady(Connection const& connection);
    void takeRequests(Client client, Connection& connection);
    void refuse(Connection& connection, char const* reason);
    void write(Connection& connection);
    void checkTime(Connection& connection, Clock::time_point now);
    static std::size_t unread(Connection const& connection) { return connection.output.size() - connection.written; }
    static bool isReading(Connection const& connection);

    ListeningSocket& socketM;
    Handler& handlerM;
    TimeSource const nowM;
    std::map<Client, Connection> connectionsM;
    Client nextM = 1;
    bool acceptPausedM = false; // the system had no descriptor left
};

} // namespace nphost
