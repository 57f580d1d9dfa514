#include "host/net/InternetSocket.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <netdb.h>
#include <sys/resource.h>
#include <sys/un.h>
#include <system_error>

namespace nphost {

bool readSocketAddress(std::string const& text, SocketAddress& address) {
    std::size_t const colon = text.rfind(':');
    if (colon == std::string::npos)
        return false;
    std::string host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    else if (host.find(':') != std::string::npos)
        return false;
    addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    std::string const port = text.substr(colon + 1);
    // The system would take a greater number for another port.
    bool const isPort = !port.empty() && port.size() <= 5 && std::all_of(port.begin(), port.end(), isDigit) &&
                        std::stoi(port) <= std::numeric_limits<in_port_t>::max();
    if (host.empty() || !isPort || getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0)
        return false;
    std::memcpy(&address.bytes, found->ai_addr, found->ai_addrlen);
    address.length = found->ai_addrlen;
    freeaddrinfo(found);
    return true;
}

FileDescriptor openAt(SocketAddress const& address, int type) {
    FileDescriptor made(socket(address.bytes.ss_family, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    int const on = 1;
    // Of datagrams two programs would share the address.
    if (made && type == SOCK_STREAM)
        setsockopt(made.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (made && address.bytes.ss_family == AF_INET6)
        setsockopt(made.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    if (!made || bind(made.get(), address.pointer(), address.length) != 0) {
        int const error = errno;
        // The unit's PrivateNetwork=yes: there is a loopback of its own, if that.
        bool const isElsewhere = error == EADDRNOTAVAIL || error == EAFNOSUPPORT || error == EPERM || error == EACCES;
        throw HostError("cannot listen on " + placeOf(address) + ": " + std::system_category().message(error) +
                        (isElsewhere ? "; a service without a network of its own is passed its sockets: see "
                                       "numberportability-http.socket and numberportability-enum.socket"
                                     : ""));
    }
    return made;
}

std::string placeOf(SocketAddress const& address) {
    if (address.bytes.ss_family == AF_UNIX)
        return std::string("unix:") + reinterpret_cast<sockaddr_un const&>(address.bytes).sun_path;
    std::array<char, INET6_ADDRSTRLEN> host{};
    std::array<char, 8> port{};
    if (getnameinfo(address.pointer(), address.length, host.data(), host.size(), port.data(), port.size(),
                    NI_NUMERICHOST | NI_NUMERICSERV) != 0)
        return "?";
    std::string const name = host.data();
    return (address.bytes.ss_family == AF_INET6 ? "[" + name + "]" : name) + ":" + port.data();
}

std::string placeOf(int descriptor) {
    return placeOf(addressOfSocket(descriptor));
}

SocketAddress addressOfSocket(int descriptor) {
    SocketAddress address;
    if (getsockname(descriptor, address.pointer(), &address.length) != 0)
        throw HostError("what the service manager passed is no socket: " + std::system_category().message(errno));
    return address;
}

bool isLoopback(sockaddr_storage const& address) {
    if (address.ss_family == AF_INET)
        return ntohl(reinterpret_cast<sockaddr_in const&>(address).sin_addr.s_addr) >> 24 == 127;
    if (address.ss_family != AF_INET6)
        return false;
    in6_addr const& six = reinterpret_cast<sockaddr_in6 const&>(address).sin6_addr;
    return IN6_IS_ADDR_LOOPBACK(&six) || (IN6_IS_ADDR_V4MAPPED(&six) && six.s6_addr[12] == 127);
}

std::string addressOf(sockaddr_storage const& peer) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (peer.ss_family == AF_INET)
        return inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in const&>(peer).sin_addr, text.data(), text.size());
    if (peer.ss_family != AF_INET6)
        return {};
    in6_addr address = reinterpret_cast<sockaddr_in6 const&>(peer).sin6_addr;
    if (!IN6_IS_ADDR_V4MAPPED(&address))
        std::memset(address.s6_addr + 8, 0, 8);
    return inet_ntop(AF_INET6, &address, text.data(), text.size());
}

void raiseDescriptorLimit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void blockSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

} // namespace nphost
