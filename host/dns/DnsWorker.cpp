#include "host/dns/DnsWorker.h"

#include "framework/BAS/DateTime.h"
#include "host/base/HostError.h"
#include "host/net/InternetSocket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <system_error>
#include <utility>

namespace nphost {

namespace {

constexpr std::chrono::milliseconds tickTimeCM{500};
constexpr int mostAcceptedCM = 16;    // at once
constexpr int mostLastBatchesCM = 64; // of datagrams, when it stops

RequestOutcome requestOutcomeOf(DnsOutcome outcome) {
    switch (outcome) {
    case DnsOutcome::ANSWERED:
    case DnsOutcome::NODATA:
    case DnsOutcome::NXDOMAIN:
        return RequestOutcome::ANSWERED;
    case DnsOutcome::TRUNCATED:
    case DnsOutcome::BADCOOKIE:
        return RequestOutcome::DENIED;
    case DnsOutcome::SERVFAIL:
        return RequestOutcome::FAILED;
    default:
        return RequestOutcome::REFUSED;
    }
}

} // namespace

DnsWorker::Client::Client(FileDescriptor socket, sockaddr_storage const& peer, DnsConnection::Patience const& patience,
                          Clock::time_point now)
    : Source{CONNECTION, socket.get()}, connection(std::move(socket), clientOf(peer), patience, now),
      address(addressOf(peer)) {}

DnsWorker::DnsWorker(Parts const& parts, std::vector<int> const& udp, std::vector<int> const& tcp)
    : partsM(parts), countsM(parts.metrics, FrontKind::ENUM), answersM(parts.answers, UdpBatch::mostCM),
      tcpM([this](std::span<EnumQuery> queries) { answer(queries, true); }), epollM(epoll_create1(EPOLL_CLOEXEC)),
      nowM(Clock::now()), tickM(nowM) {
    static_assert(UdpBatch::mostCM == TcpBatch::mostCM);
    wakeUpSourceM.descriptor = wakeUpM.descriptor();
    watch(wakeUpSourceM, EPOLLIN, EPOLL_CTL_ADD);
    for (auto const& [kind, descriptors] : {std::pair(Source::UDP, &udp), std::pair(Source::LISTENER, &tcp)})
        for (int const descriptor : *descriptors) {
            listenersM.push_back({kind, descriptor});
            // Of the threads that wait at one socket not all need to wake.
            watch(listenersM.back(), EPOLLIN | EPOLLEXCLUSIVE, EPOLL_CTL_ADD);
        }
    threadM = std::thread([this] { run(); });
}

DnsWorker::~DnsWorker() {
    beginStop();
    threadM.join();
    // Only after a fault of the loop's: others must not be kept out by connections that are gone.
    for (Client const& client : clientsM)
        partsM.limits.leave(client.address);
}

void DnsWorker::beginStop() noexcept {
    stopM = true;
    wakeUpM.wake();
}

void DnsWorker::run() noexcept {
    blockSignals();
    std::array<epoll_event, 64> events;
    while (!hasStoppedM || !clientsM.empty()) {
        int const count = epoll_wait(epollM.get(), events.data(), events.size(), patience());
        nowM = Clock::now();
        for (int i = 0; i < count; ++i)
            handle(*static_cast<Source*>(events[static_cast<std::size_t>(i)].data.ptr));
        if (stopM && !hasStoppedM)
            stopListening();
        if (nowM >= tickM)
            tick();
    }
}

// Without connections nothing becomes due.
int DnsWorker::patience() const {
    if (clientsM.empty() && !hasPausedM)
        return -1;
    auto const rest = std::chrono::duration_cast<std::chrono::milliseconds>(tickM - nowM).count();
    return static_cast<int>(std::clamp<std::int64_t>(rest, 0, tickTimeCM.count())) + 1;
}

void DnsWorker::handle(Source& source) noexcept {
    switch (source.kind) {
    case Source::WAKE_UP:
        return wakeUpM.clear();
    case Source::UDP:
        receive(source.descriptor); // one batch: others wait, too
        return;
    case Source::LISTENER:
        return accept(source);
    case Source::CONNECTION:
        return serve(static_cast<Client&>(source));
    }
}

// False when nothing waited.
bool DnsWorker::receive(int descriptor) noexcept {
    std::span<EnumQuery> const queries = udpM.receive(descriptor);
    if (queries.empty())
        return false;
    nowM = Clock::now();
    for (std::size_t i = 0; i < queries.size(); ++i) {
        EnumQuery& query = queries[i];
        query.isTrusted = isLoopback(udpM.peer(i)) || partsM.settings.trusts(query.client);
        query.isLimited = !query.isTrusted && partsM.rates.isOver(query.client, nowM.time_since_epoch());
    }
    answer(queries, false);
    udpM.send(descriptor);
    return true;
}

void DnsWorker::answer(std::span<EnumQuery> queries, bool isTcp) noexcept {
    if (queries.empty())
        return;
    Clock::time_point const begin = Clock::now();
    answersM.answer(queries, BAS::DateTime::now());
    auto const duration = Clock::now() - begin;
    for (EnumQuery const& query : queries)
        count(query, isTcp, duration);
}

void DnsWorker::count(EnumQuery const& query, bool isTcp, std::chrono::nanoseconds duration) noexcept {
    countsM.dnsMessage(query.outcome, isTcp);
    if (query.outcome == DnsOutcome::SILENCE)
        return;
    countsM.requestEnded(requestOutcomeOf(query.outcome), duration);
    if (query.outcome == DnsOutcome::ANSWERED)
        countsM.lookedUp(true);
    else if (query.outcome == DnsOutcome::NODATA || query.outcome == DnsOutcome::NXDOMAIN)
        countsM.lookedUp(false);
}

void DnsWorker::accept(Source& listener) noexcept {
    for (int i = 0; i < mostAcceptedCM; ++i) {
        sockaddr_storage peer = {};
        socklen_t length = sizeof peer;
        FileDescriptor socket(
            accept4(listener.descriptor, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket) {
            try {
                take(std::move(socket), peer);
            } catch (std::exception const&) { // NOLINT(bugprone-empty-catch): for want of memory: others come still
            }
            continue;
        }
        // Without a descriptor the connection stays in the queue: it is not asked for again before the next tick.
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            epoll_ctl(epollM.get(), EPOLL_CTL_DEL, listener.descriptor, nullptr);
            listener.isPaused = hasPausedM = true;
            tickM = std::max(tickM, nowM + tickTimeCM / 2);
        }
        return;
    }
}

void DnsWorker::take(FileDescriptor socket, sockaddr_storage const& peer) {
    std::string const address = addressOf(peer);
    if (auto const reason = partsM.limits.enter(address))
        return countsM.connectionRefused(*reason);
    try {
        int const on = 1;
        int const bytes = 64 * 1024; // of answers that the system keeps for who does not read
        setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        setsockopt(socket.get(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
        clientsM.emplace_front(std::move(socket), peer,
                               DnsConnection::Patience{std::chrono::seconds(partsM.settings.idleSeconds)}, nowM);
        Client& client = clientsM.front();
        client.place = clientsM.begin();
        client.events = EPOLLIN;
        try {
            watch(client, client.events, EPOLL_CTL_ADD);
        } catch (std::exception const&) {
            clientsM.pop_front();
            throw;
        }
    } catch (std::exception const&) {
        partsM.limits.leave(address);
        throw;
    }
    countsM.connectionOpened();
    if (tickM < nowM)
        tickM = nowM + tickTimeCM;
}

void DnsWorker::serve(Client& client) noexcept {
    nowM = Clock::now();
    client.connection.step(tcpM, nowM);
    settle(client);
}

// Afterwards the client may be gone.
void DnsWorker::settle(Client& client) noexcept {
    if (!client.connection.isOver()) {
        std::uint32_t const events = client.connection.isWriting() ? EPOLLOUT : EPOLLIN;
        if (events == client.events)
            return;
        epoll_event event = {};
        event.events = client.events = events;
        event.data.ptr = static_cast<Source*>(&client);
        if (epoll_ctl(epollM.get(), EPOLL_CTL_MOD, client.descriptor, &event) == 0)
            return;
    }
    partsM.limits.leave(client.address);
    countsM.connectionClosed();
    clientsM.erase(client.place);
}

void DnsWorker::watch(Source& source, std::uint32_t events, int operation) {
    epoll_event event = {};
    event.events = events;
    event.data.ptr = &source;
    if (epoll_ctl(epollM.get(), operation, source.descriptor, &event) != 0)
        throw HostError("[enum] a socket cannot be waited at: " + std::system_category().message(errno));
}

void DnsWorker::tick() noexcept {
    tickM = nowM + tickTimeCM;
    for (auto each = clientsM.begin(); each != clientsM.end();) {
        Client& client = *each++;
        if (std::optional<ConnectionDrop> const drop = client.connection.tick(nowM))
            countsM.connectionDropped(*drop);
        settle(client);
    }
    if (!std::exchange(hasPausedM, false) || hasStoppedM)
        return;
    for (Source& listener : listenersM) {
        if (!listener.isPaused)
            continue;
        epoll_event event = {};
        event.events = EPOLLIN | EPOLLEXCLUSIVE;
        event.data.ptr = &listener;
        listener.isPaused = epoll_ctl(epollM.get(), EPOLL_CTL_ADD, listener.descriptor, &event) != 0;
        hasPausedM = hasPausedM || listener.isPaused;
    }
}

// Datagrams that are there already have been sent to this program. Sockets that were passed keep what comes from now on
// for the next one.
void DnsWorker::stopListening() noexcept {
    hasStoppedM = true;
    for (Source const& listener : listenersM) {
        if (!listener.isPaused)
            epoll_ctl(epollM.get(), EPOLL_CTL_DEL, listener.descriptor, nullptr);
        for (int i = 0; listener.kind == Source::UDP && i < mostLastBatchesCM && receive(listener.descriptor); ++i) {
        }
    }
    for (auto each = clientsM.begin(); each != clientsM.end();) {
        Client& client = *each++;
        client.connection.beginStop(tcpM, nowM);
        settle(client);
    }
}

} // namespace nphost
