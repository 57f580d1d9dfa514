#include "host/net/LineServer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <sys/socket.h>
#include <utility>

namespace nphost {

// One request of a client at a time, and none while it does not read: else one client could fill the memory.
bool LineServer::mayTake(Connection const& connection) const {
    return !connection.closing && !connection.awaited && unread(connection) < limitsM.pauseBytes;
}

void LineServer::collect(std::vector<pollfd>& polled) const {
    // Without a free descriptor the socket stays ready and would keep the loop turning.
    if (socketM.descriptor() >= 0 && !acceptPausedM)
        polled.push_back({socketM.descriptor(), POLLIN, 0});
    for (auto const& [client, connection] : connectionsM) {
        // Also with no event wanted: poll tells of errors and hang-ups all the same.
        int const events = (isReading(connection) ? POLLIN : 0) | (unread(connection) > 0 ? POLLOUT : 0);
        polled.push_back({connection.descriptor.get(), static_cast<short>(events), 0});
    }
}

void LineServer::serve(std::vector<pollfd> const& polled) {
    // A pause lasts for one turn, which the tick of patience() ends.
    acceptPausedM = false;
    Clock::time_point const now = nowM();
    for (auto& [client, connection] : connectionsM)
        try {
            serveOne(client, connection, happenedTo(connection.descriptor.get(), polled), now);
        } catch (std::exception const&) { // for want of memory, for one
            connection.dropped = true;
        }
    // Connections go here, and at the close, and nowhere else: a handler may call send for any client while the loop
    // above walks. They go before new ones are taken, which get their places.
    std::erase_if(connectionsM, [this](auto const& entry) {
        if (entry.second.dropped)
            handlerM.noticed(Event::CLOSED);
        return entry.second.dropped;
    });
    if (happenedTo(socketM.descriptor(), polled) != 0)
        acceptAll();
}

void LineServer::serveOne(Client client, Connection& connection, int happened, Clock::time_point now) {
    if ((happened & (POLLERR | POLLNVAL)) != 0)
        connection.dropped = true;
    // What was sent before a hang-up is still to be read; recv says when that is over.
    if ((happened & (POLLIN | POLLHUP)) != 0 && isReading(connection))
        read(connection);
    else if ((happened & POLLHUP) != 0)
        connection.dropped = true; // nobody is there to read any more
    // Without any event, too: since its last turn the client may have got the answer that its next request waited for.
    answer(client, connection);
    checkTime(connection, now);
}

void LineServer::acceptAll() {
    for (;;) {
        FileDescriptor accepted = socketM.accept();
        if (!accepted) {
            // These last. EAGAIN, and what is wrong with a single connection, is over with this call.
            acceptPausedM = errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS;
            return;
        }
        try {
            take(std::move(accepted));
        } catch (std::exception const&) { // NOLINT(bugprone-empty-catch): it is closed, as the client sees
        }
    }
}

void LineServer::take(FileDescriptor descriptor) {
    if (connectionsM.size() >= limitsM.mostClients)
        return turnAway(std::move(descriptor));
    // A number is never used again: an answer that the lane brings late must not reach another client.
    Connection& connection = connectionsM[nextM++];
    connection.descriptor = std::move(descriptor);
    connection.lastMove = nowM();
    handlerM.noticed(Event::OPENED);
}

void LineServer::turnAway(FileDescriptor descriptor) {
    handlerM.noticed(Event::TURNED_AWAY);
    std::string const line = handlerM.refusal("too many clients");
    // One try: a connection that is new has room for a line, and nobody is waited for.
    ::send(descriptor.get(), line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

void LineServer::read(Connection& connection) {
    std::array<char, 16UL * 1024> block;
    // One block a turn, so that the others get theirs; poll brings the rest.
    ssize_t const count = recv(connection.descriptor.get(), block.data(), block.size(), 0);
    if (count > 0) {
        // The time of an unfinished line runs from its first byte, however slowly the others come.
        if (connection.input.empty())
            connection.lastMove = nowM();
        connection.input.append(block.data(), static_cast<std::size_t>(count));
    } else if (count == 0) {
        connection.inputEnded = true;
    } else if (errno != EAGAIN && errno != EINTR) {
        connection.dropped = true;
    }
}

// Writing makes room for answers, and so for further requests that have arrived already.
void LineServer::answer(Client client, Connection& connection) {
    constexpr int mostTurns = 4; // then the others get theirs
    int turn = 0;
    do {
        takeRequests(client, connection);
        write(connection);
    } while (++turn < mostTurns && isReady(connection));
}

bool LineServer::isReady(Connection const& connection) const {
    return !connection.dropped && mayTake(connection) && connection.input.find('\n') != std::string::npos;
}

std::optional<EventLoop::Milliseconds> LineServer::patience() const {
    constexpr EventLoop::Milliseconds tick{500};
    if (std::any_of(connectionsM.begin(), connectionsM.end(),
                    [this](auto const& entry) { return entry.second.dropped || isReady(entry.second); }))
        return EventLoop::Milliseconds(0);
    return connectionsM.empty() && !acceptPausedM ? std::nullopt : std::optional(tick);
}

void LineServer::takeRequests(Client client, Connection& connection) {
    std::size_t taken = 0;
    while (!connection.dropped && mayTake(connection)) {
        // A line that is too long is left to the refusal below.
        std::size_t const end = connection.input.find('\n', taken);
        if (end == std::string::npos || end - taken >= limitsM.mostRequestBytes)
            break;
        std::string const line = connection.input.substr(taken, end - taken);
        taken = end + 1;
        // Set before the handler is called, which may answer at once.
        connection.awaited = true;
        handlerM.request(client, line);
        connection.lastMove = nowM();
    }
    // All at once: each erasure moves what remains.
    connection.input.erase(0, taken);
    if (connection.closing || connection.awaited)
        return;
    // Too long is too long, whether the newline has come or not.
    std::size_t const end = connection.input.find('\n');
    if (std::min(end, connection.input.size()) >= limitsM.mostRequestBytes)
        refuse(connection, "the request is longer than " + std::to_string(limitsM.mostRequestBytes) + " bytes");
    else if (connection.inputEnded && end == std::string::npos) {
        if (!connection.input.empty())
            refuse(connection, "the request does not end with a newline");
        // A follower that has ended its sending still wants its lines.
        connection.closing = connection.closing || !connection.following;
    }
}

void LineServer::refuse(Connection& connection, std::string const& reason) {
    connection.output += handlerM.refusal(reason);
    connection.input.clear();
    connection.closing = true;
}

// Once: a connection goes only at the end of the turn.
void LineServer::drop(Connection& connection, Event reason) {
    if (!connection.dropped)
        handlerM.noticed(reason);
    connection.dropped = true;
}

void LineServer::write(Connection& connection) {
    while (unread(connection) > 0 && !connection.dropped) {
        ssize_t const count = ::send(connection.descriptor.get(), connection.output.data() + connection.written,
                                     unread(connection), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count > 0) {
            connection.written += static_cast<std::size_t>(count);
            connection.lastMove = nowM();
        } else if (errno == EAGAIN) {
            break;
        } else if (errno != EINTR) {
            connection.dropped = true;
        }
    }
    // What was written is not erased at each step, since the rest moves.
    if (unread(connection) == 0 || connection.written > limitsM.pauseBytes) {
        connection.output.erase(0, connection.written);
        connection.written = 0;
    }
    if (connection.closing && unread(connection) == 0)
        connection.dropped = true;
}

void LineServer::checkTime(Connection& connection, Clock::time_point now) {
    auto const still = now - connection.lastMove;
    if (unread(connection) > 0) {
        if (still > limitsM.stallTime)
            drop(connection, Event::SLOW_READER);
    } else if (connection.awaited) {
        return; // it is this side that owes something
    } else if (!connection.input.empty() && still > limitsM.stallTime) {
        handlerM.noticed(Event::SLOW_REQUEST);
        refuse(connection, "the request was not finished in time");
        write(connection);
    } else if (!connection.following && still > limitsM.idleTime) {
        connection.dropped = true;
    }
}

void LineServer::send(Client client, std::string_view line, bool more) noexcept {
    auto const found = connectionsM.find(client);
    if (found == connectionsM.end())
        return;
    Connection& connection = found->second;
    connection.awaited = false;
    connection.following = connection.following || more;
    if (unread(connection) == 0)
        connection.lastMove = nowM(); // from here on the client owes its reading
    // Looked at before the line is added, so that a line of any length gets through to who reads. Answers are not
    // dropped for their length: pauseBytes bounds them.
    if (connection.following && unread(connection) > limitsM.mostUnreadBytes)
        drop(connection, Event::SLOW_READER);
    try {
        if (!connection.dropped)
            connection.output += line;
    } catch (std::exception const&) {
        connection.dropped = true;
    }
}

void LineServer::close() {
    for (auto& [client, connection] : connectionsM) {
        write(connection);
        handlerM.noticed(Event::CLOSED);
    }
    connectionsM.clear();
    // The socket's name stays until the plug-in is shut down, so that no second daemon starts on its data before.
}

} // namespace nphost
