#include "host/daemon/ControlServer.h"

#include "host/daemon/ControlProtocol.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <new>
#include <sys/socket.h>
#include <utility>

namespace nphost {

namespace {

constexpr std::size_t pauseBytesCM = 256UL * 1024; // unread output from which on no more requests are taken

} // namespace

bool ControlServer::isReading(Connection const& connection) {
    return !connection.inputEnded && !connection.closing && !connection.awaited && unread(connection) < pauseBytesCM;
}

void ControlServer::collect(std::vector<pollfd>& polled) const {
    if (socketM.descriptor() >= 0 && !acceptPausedM)
        polled.push_back({socketM.descriptor(), POLLIN, 0});
    for (auto const& [client, connection] : connectionsM) {
        int const events = (isReading(connection) ? POLLIN : 0) | (unread(connection) > 0 ? POLLOUT : 0);
        polled.push_back({connection.descriptor.get(), static_cast<short>(events), 0});
    }
}

void ControlServer::serve(std::vector<pollfd> const& polled) {
    acceptPausedM = false;
    auto const happened = [&polled](int descriptor) {
        auto const found = std::find_if(polled.begin(), polled.end(),
                                        [descriptor](pollfd const& entry) { return entry.fd == descriptor; });
        return found == polled.end() ? 0 : found->revents;
    };
    Clock::time_point const now = nowM();
    for (auto& [client, connection] : connectionsM)
        try {
            serveOne(client, connection, happened(connection.descriptor.get()), now);
        } catch (std::exception const&) { // for want of memory, for one
            connection.dropped = true;
        }
    std::erase_if(connectionsM, [](auto const& entry) { return entry.second.dropped; });
    if (happened(socketM.descriptor()) != 0)
        acceptAll();
}

void ControlServer::serveOne(Client client, Connection& connection, int happened, Clock::time_point now) {
    if ((happened & (POLLERR | POLLNVAL)) != 0)
        connection.dropped = true;
    if ((happened & (POLLIN | POLLHUP)) != 0 && isReading(connection))
        read(connection);
    else if ((happened & POLLHUP) != 0)
        connection.dropped = true; // nobody is there to read any more
    answer(client, connection);
    checkTime(connection, now);
}

void ControlServer::acceptAll() {
    for (;;) {
        FileDescriptor accepted = socketM.accept();
        if (!accepted) {
            acceptPausedM = errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS;
            return;
        }
        try {
            take(std::move(accepted));
        } catch (std::bad_alloc const&) { // NOLINT(bugprone-empty-catch): it is closed, as the client sees
        }
    }
}

void ControlServer::take(FileDescriptor descriptor) {
    if (connectionsM.size() >= mostClientsCM)
        return turnAway(std::move(descriptor));
    Connection& connection = connectionsM[nextM++];
    connection.descriptor = std::move(descriptor);
    connection.lastMove = nowM();
}

void ControlServer::turnAway(FileDescriptor descriptor) {
    std::string const line = errorLine("too many clients");
    ::send(descriptor.get(), line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

void ControlServer::read(Connection& connection) {
    std::array<char, 16UL * 1024> block;
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

void ControlServer::answer(Client client, Connection& connection) {
    constexpr int mostTurns = 4; // then the others get theirs
    int turn = 0;
    do {
        takeRequests(client, connection);
        write(connection);
    } while (++turn < mostTurns && isReady(connection));
}

bool ControlServer::isReady(Connection const& connection) {
    return !connection.dropped && !connection.closing && !connection.awaited && unread(connection) < pauseBytesCM &&
           connection.input.find('\n') != std::string::npos;
}

bool ControlServer::hasReady() const {
    return std::any_of(connectionsM.begin(), connectionsM.end(),
                       [](auto const& entry) { return entry.second.dropped || isReady(entry.second); });
}

void ControlServer::takeRequests(Client client, Connection& connection) {
    std::size_t taken = 0;
    while (!connection.dropped && !connection.closing && !connection.awaited && unread(connection) < pauseBytesCM) {
        std::size_t const end = connection.input.find('\n', taken);
        if (end == std::string::npos || end - taken >= mostRequestBytesCM)
            break;
        std::string const line = connection.input.substr(taken, end - taken);
        taken = end + 1;
        connection.awaited = true;
        handlerM.request(client, line);
        connection.lastMove = nowM();
    }
    connection.input.erase(0, taken);
    if (connection.closing || connection.awaited)
        return;
    std::size_t const end = connection.input.find('\n');
    if (std::min(end, connection.input.size()) >= mostRequestBytesCM)
        refuse(connection, "the request is longer than 65536 bytes");
    else if (connection.inputEnded && end == std::string::npos) {
        if (!connection.input.empty())
            refuse(connection, "the request does not end with a newline");
        connection.closing = connection.closing || !connection.following;
    }
}

void ControlServer::refuse(Connection& connection, char const* reason) {
    connection.output += errorLine(reason);
    connection.input.clear();
    connection.closing = true;
}

void ControlServer::write(Connection& connection) {
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
    if (unread(connection) == 0 || connection.written > pauseBytesCM) {
        connection.output.erase(0, connection.written);
        connection.written = 0;
    }
    if (connection.closing && unread(connection) == 0)
        connection.dropped = true;
}

void ControlServer::checkTime(Connection& connection, Clock::time_point now) {
    auto const still = now - connection.lastMove;
    if (unread(connection) > 0) {
        connection.dropped = connection.dropped || still > stallTimeCM;
    } else if (connection.awaited) {
        return; // it is this side that owes something
    } else if (!connection.input.empty() && still > stallTimeCM) {
        refuse(connection, "the request was not finished in time");
        write(connection);
    } else if (!connection.following && still > idleTimeCM) {
        connection.dropped = true;
    }
}

void ControlServer::send(Client client, std::string_view line, bool more) noexcept {
    auto const found = connectionsM.find(client);
    if (found == connectionsM.end())
        return;
    Connection& connection = found->second;
    connection.awaited = false;
    connection.following = connection.following || more;
    if (unread(connection) == 0)
        connection.lastMove = nowM(); // from here on the client owes its reading
    if (connection.following && unread(connection) > mostUnreadCM)
        connection.dropped = true;
    try {
        if (!connection.dropped)
            connection.output += line;
    } catch (std::exception const&) {
        connection.dropped = true;
    }
}

void ControlServer::close() {
    for (auto& [client, connection] : connectionsM)
        write(connection);
    connectionsM.clear();
    // The socket's name stays until the plug-in is shut down, so that no second daemon starts on its data before.
}

} // namespace nphost
