// nphost::LineServer: the connections to clients that ask in lines, one request and one answer each.
//
// Purpose: takes connections at a socket, cuts what arrives into lines, hands each line to the handler and writes the
// answers; all of it without ever waiting for a client, and within limits:
// - a line of more than mostRequestBytes, and one that is not finished within stallTime, is refused by an answer, and
//   the connection closed;
// - while a client has pauseBytes of unread output no more of its requests are read; one that reads nothing for
//   stallTime, or that gets lines without asking and falls mostUnreadBytes behind, is dropped;
// - a client without a request for idleTime is dropped; above mostClients new ones are turned away.
// A client that has ended its sending still gets the answers to what it sent.
// Ownership: borrows the listening socket and the handler; owns the connections.
// Threads: the loop's thread.
// Errors: none but of construction, which throws std::bad_alloc: a connection that fails, or that memory does not
// suffice for, is closed.
// Complexity: linear in the bytes and the clients.
#pragma once

#include "host/net/EventLoop.h"
#include "host/net/UnixSocket.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <poll.h>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace nphost {

class LineServer : public EventLoop::Source {
  public:
    using Client = std::uint64_t; // from 1 on; none is used twice
    using Clock = std::chrono::steady_clock;

    struct Limits {
        std::size_t mostClients = 32;
        std::size_t mostRequestBytes = 64UL * 1024; // with the newline
        std::size_t pauseBytes = 256UL * 1024;
        std::size_t mostUnreadBytes = 1024UL * 1024;
        std::chrono::seconds stallTime{5};
        std::chrono::seconds idleTime{600};
    };

    enum class Event { OPENED, CLOSED, TURNED_AWAY, SLOW_REQUEST, SLOW_READER }; // a slow one is closed besides

    class Handler {
      public:
        virtual ~Handler() = default;
        // What happens to connections, for who counts it.
        virtual void noticed(Event /*event*/) noexcept {}
        // One request, without its newline, valid during the call. The handler answers now or later, with one send,
        // and may send to other clients meanwhile; it must not close the server. What it throws closes the connection.
        virtual void request(Client client, std::string_view line) = 0;
        // The line that refuses what a client does, for a reason in a sentence.
        virtual std::string refusal(std::string const& reason) = 0;
    };

    using TimeSource = std::function<Clock::time_point()>;
    LineServer(ListeningSocket& socket, Handler& handler, Limits const& limits, TimeSource now = Clock::now)
        : socketM(socket), handlerM(handler), limitsM(limits), nowM(std::move(now)) {}

    std::size_t mostPolled() const override { return limitsM.mostClients + 1; }
    void collect(std::vector<pollfd>& polled) const override;
    // 0 when a request could be taken or a connection closed at once, a tick while one may be closed for its time.
    std::optional<EventLoop::Milliseconds> patience() const override;
    // Serves what poll found, and closes connections whose time is over.
    void serve(std::vector<pollfd> const& polled) override;

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
    void turnAway(FileDescriptor descriptor);
    void serveOne(Client client, Connection& connection, int happened, Clock::time_point now);
    void read(Connection& connection);
    void answer(Client client, Connection& connection);
    bool mayTake(Connection const& connection) const;
    bool isReady(Connection const& connection) const;
    void takeRequests(Client client, Connection& connection);
    void refuse(Connection& connection, std::string const& reason);
    void drop(Connection& connection, Event reason);
    void write(Connection& connection);
    void checkTime(Connection& connection, Clock::time_point now);
    static std::size_t unread(Connection const& connection) { return connection.output.size() - connection.written; }
    bool isReading(Connection const& connection) const { return !connection.inputEnded && mayTake(connection); }

    ListeningSocket& socketM;
    Handler& handlerM;
    Limits const limitsM;
    TimeSource const nowM;
    std::map<Client, Connection> connectionsM;
    Client nextM = 1;
    bool acceptPausedM = false; // the system had no descriptor left
};

} // namespace nphost
