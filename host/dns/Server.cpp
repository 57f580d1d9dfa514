#include "host/dns/Server.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"
#include "host/log/OwnReport.h"
#include "host/net/InternetSocket.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <optional>
#include <system_error>
#include <thread>

namespace nphost {

namespace {

constexpr std::size_t mostThreadsCM = 64;

[[noreturn]] void fail(std::string const& reason) {
    throw HostError("[enum] " + reason);
}

std::string reasonOf(int error) {
    return std::system_category().message(error);
}

int optionOf(int descriptor, int name) {
    int value = -1;
    socklen_t length = sizeof value;
    return getsockopt(descriptor, SOL_SOCKET, name, &value, &length) == 0 ? value : -1;
}

void listenOn(FileDescriptor const& socket) {
    if (::listen(socket.get(), SOMAXCONN) != 0)
        throw HostError("cannot listen on " + placeOf(socket.get()) + ": " + reasonOf(errno));
}

// Sockets for datagrams of one address, one a thread. The first has the address for itself at first, so that another
// program's socket, which may let others in, is noticed.
std::vector<FileDescriptor> openDatagrams(SocketAddress const& address, std::size_t count) {
    std::vector<FileDescriptor> sockets;
    sockets.push_back(openAt(address, SOCK_DGRAM));
    int const on = 1;
    setsockopt(sockets.front().get(), SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
    while (sockets.size() < count) {
        FileDescriptor next(socket(address.bytes.ss_family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        setsockopt(next.get(), SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
        if (address.bytes.ss_family == AF_INET6)
            setsockopt(next.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
        if (!next || bind(next.get(), address.pointer(), address.length) != 0)
            throw HostError("cannot listen on " + placeOf(address) + ": " + reasonOf(errno));
        sockets.push_back(std::move(next));
    }
    return sockets;
}

struct Opened {
    FileDescriptor tcp;
    std::vector<FileDescriptor> udp;
};

Opened openBoth(SocketAddress const& address, std::size_t threads) {
    Opened opened;
    opened.tcp = openAt(address, SOCK_STREAM);
    opened.udp = openDatagrams(addressOfSocket(opened.tcp.get()), threads);
    listenOn(opened.tcp);
    return opened;
}

bool choosesPort(SocketAddress const& address) {
    return address.bytes.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 const&>(address.bytes).sin6_port == 0
                                               : reinterpret_cast<sockaddr_in const&>(address.bytes).sin_port == 0;
}

} // namespace

DnsFront::DnsFront(FrontParts const& parts)
    : zonesM(parts.configuration.of<EnumSettings>(), parts.configuration), cookiesM(DnsCookies::random()),
      limitsM(zonesM.settings().maxConnections, zonesM.settings().maxConnectionsPerAddress),
      ratesM(zonesM.settings().maxAnswersPerSecond) {
    EnumSettings const& settings = zonesM.settings();
    std::size_t const processors = std::max(1U, std::thread::hardware_concurrency());
    auto const threads = static_cast<std::size_t>(settings.threads.value_or(std::min(processors, mostThreadsCM)));
    raiseDescriptorLimit();
    open(parts.sockets, threads);
    std::vector<int> tcp;
    for (FileDescriptor const& each : listenersM)
        tcp.push_back(each.get());
    for (std::size_t i = 0; i < threads; ++i) {
        std::vector<int> udp;
        for (FileDescriptor const& each : sharedM)
            udp.push_back(each.get());
        for (std::vector<FileDescriptor> const& each : ownM)
            udp.push_back(each[i].get());
        workersM.emplace_back(DnsWorker::Parts{{parts.plugIn, parts.networks, parts.clock, zonesM, cookiesM},
                                               settings,
                                               parts.metrics,
                                               limitsM,
                                               ratesM},
                              udp, tcp);
    }
    report();
}

void DnsFront::open(std::vector<PassedSocket> const& passed, std::size_t threads) {
    // All of them are closed, whichever is wrong.
    std::vector<FileDescriptor> sockets;
    for (PassedSocket const& each : passed)
        sockets.emplace_back(each.descriptor);
    for (FileDescriptor& each : sockets)
        openPassed(std::move(each));
    for (std::string const& place : zonesM.settings().listen)
        openOwn(place, threads);
    if (listenersM.empty() && sharedM.empty() && ownM.empty())
        fail("says nowhere to listen: 'listen', or sockets named dns from the service manager");
    // An answer that is cut sends its asker from the one to the other.
    if (listenersM.empty() || (sharedM.empty() && ownM.empty()))
        fail(std::string("the service manager passes no socket for ") + (listenersM.empty() ? "TCP" : "UDP") +
             " (ListenStream= and ListenDatagram=, both of one address)");
}

void DnsFront::openPassed(FileDescriptor socket) {
    int const family = optionOf(socket.get(), SO_DOMAIN);
    bool const isTcp = optionOf(socket.get(), SO_TYPE) == SOCK_STREAM && optionOf(socket.get(), SO_ACCEPTCONN) == 1;
    bool const isUdp = optionOf(socket.get(), SO_TYPE) == SOCK_DGRAM;
    if ((family != AF_INET && family != AF_INET6) || (!isTcp && !isUdp))
        fail("a socket that the service manager passes is neither of UDP nor listening by TCP");
    fcntl(socket.get(), F_SETFL, fcntl(socket.get(), F_GETFL) | O_NONBLOCK);
    if (isUdp)
        UdpBatch::prepare(socket.get());
    (isTcp ? listenersM : sharedM).push_back(std::move(socket));
}

// Where the system chooses the port, the one that is free for connections may be taken for datagrams.
void DnsFront::openOwn(std::string const& place, std::size_t threads) {
    SocketAddress address;
    if (!readSocketAddress(place, address))
        fail("'" + shortened(place) + "' is no place to listen on: ADDRESS:PORT or [ADDRESS]:PORT");
    std::optional<Opened> opened;
    for (int left = choosesPort(address) ? 20 : 1; !opened; --left) {
        try {
            opened = openBoth(address, threads);
        } catch (HostError const& error) {
            if (left <= 1)
                fail(error.what());
        }
    }
    for (FileDescriptor const& each : opened->udp)
        UdpBatch::prepare(each.get());
    listenersM.push_back(std::move(opened->tcp));
    ownM.push_back(std::move(opened->udp));
}

void DnsFront::report() const {
    for (FileDescriptor const& each : listenersM)
        reportOwn("INF_HOST_ENUM", BAS::Status::NORMAL, {BAS::String(placeOf(each.get()))});
}

void DnsFront::beginStop() noexcept {
    for (DnsWorker& worker : workersM)
        worker.beginStop();
}

void DnsFront::stop() noexcept {
    beginStop();
    workersM.clear();
}

} // namespace nphost
