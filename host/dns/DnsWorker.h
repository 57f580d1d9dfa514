// nphost::DnsWorker: a thread of the front over DNS.
//
// Purpose: waits for datagrams and connections at its sockets, and answers them. Datagrams that wait together, and the
// questions that came together on a connection, are looked up together.
// Ownership: borrows the sockets and its parts; owns connections, storage and its thread.
// Threads: construction, beginStop and destruction of one thread each; everything else is its own thread's.
// Errors: construction throws HostError, std::system_error, std::bad_alloc. Want of memory or of descriptors ends a
// connection, or lets it wait, and nothing else.
// Complexity: that of the look-ups. Deadlines are looked at twice a second.
#pragma once

#include "host/base/WakeUp.h"
#include "host/dns/DnsConnection.h"
#include "host/dns/EnumAnswers.h"
#include "host/dns/ResponseRates.h"
#include "host/dns/UdpBatch.h"
#include "host/service/ConnectionLimits.h"
#include "host/service/Metrics.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace nphost {

class DnsWorker {
  public:
    struct Parts {
        EnumAnswers::Parts answers;
        EnumSettings const& settings;
        Metrics& metrics;
        ConnectionLimits& limits;
        ResponseRates& rates;
    };

    // The sockets do not block; several workers may have the same.
    DnsWorker(Parts const& parts, std::vector<int> const& udp, std::vector<int> const& tcp);
    DnsWorker(DnsWorker const&) = delete;
    DnsWorker& operator=(DnsWorker const&) = delete;
    ~DnsWorker(); // when its connections have ended

    // Takes nothing new; answers what is there, and ends.
    void beginStop() noexcept;

  private:
    using Clock = std::chrono::steady_clock;

    // What an event is of.
    struct Source {
        enum Kind { WAKE_UP, UDP, LISTENER, CONNECTION };
        Kind kind = WAKE_UP;
        int descriptor = -1;
        bool isPaused = false;
    };
    struct Client : Source {
        Client(FileDescriptor socket, sockaddr_storage const& peer, DnsConnection::Patience const& patience,
               Clock::time_point now);

        DnsConnection connection;
        std::string address; // that it is counted by
        std::uint32_t events = 0;
        std::list<Client>::iterator place;
    };

    void run() noexcept;
    int patience() const;
    void handle(Source& source) noexcept;
    bool receive(int descriptor) noexcept;
    void answer(std::span<EnumQuery> queries, bool isTcp) noexcept;
    void count(EnumQuery const& query, bool isTcp, std::chrono::nanoseconds duration) noexcept;
    void accept(Source& listener) noexcept;
    void take(FileDescriptor socket, sockaddr_storage const& peer);
    void serve(Client& client) noexcept;
    void settle(Client& client) noexcept;
    void watch(Source& source, std::uint32_t events, int operation);
    void tick() noexcept;
    void stopListening() noexcept;

    Parts const partsM;
    Metrics::Cell countsM;
    EnumAnswers answersM;
    UdpBatch udpM;
    TcpBatch tcpM;
    FileDescriptor epollM;
    WakeUp wakeUpM;
    Source wakeUpSourceM;
    std::list<Source> listenersM; // and sockets for datagrams
    std::list<Client> clientsM;
    std::atomic<bool> stopM{false};
    bool hasStoppedM = false; // nothing new is taken
    bool hasPausedM = false;
    Clock::time_point nowM;
    Clock::time_point tickM;
    std::thread threadM; // last: it uses all else
};

} // namespace nphost
