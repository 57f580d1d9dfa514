// nphost::DnsFront: the front that answers ENUM over DNS.
//
// Purpose: the sockets of [enum] and the threads that answer at them. Each address has one socket for connections, at
// which all threads wait, and one for datagrams for each thread: the system gives a client's datagrams to one of them.
// Sockets that the service manager passes are shared by the threads.
// Ownership: as Front says; owns sockets, limits and threads.
// Threads: as Front says. Nothing of it is waited for by the daemon's loop but its end.
// Errors: construction throws HostError in one line.
// Complexity: that of its questions. stop takes some seconds at the most.
#pragma once

#include "host/base/FileDescriptor.h"
#include "host/dns/DnsWorker.h"
#include "host/service/Front.h"

#include <list>
#include <memory>
#include <vector>

namespace nphost {

class DnsFront : public Front {
  public:
    explicit DnsFront(FrontParts const& parts);
    ~DnsFront() override { stop(); }

    // What it uses is read again by the daemon, for all.
    bool reread() noexcept override { return true; }
    void beginStop() noexcept override;
    void stop() noexcept override;

  private:
    void open(std::vector<PassedSocket> const& passed, std::size_t threads);
    void openPassed(FileDescriptor socket);
    void openOwn(std::string const& place, std::size_t threads);
    void report() const;

    EnumZones const zonesM;
    DnsCookies const cookiesM;
    ConnectionLimits limitsM;
    ResponseRates ratesM;
    std::vector<FileDescriptor> listenersM;        // TCP
    std::vector<FileDescriptor> sharedM;           // UDP, of all threads
    std::vector<std::vector<FileDescriptor>> ownM; // UDP, of each thread
    std::list<DnsWorker> workersM;                 // last: they use all else
};

} // namespace nphost
