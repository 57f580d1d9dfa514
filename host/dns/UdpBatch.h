// nphost::UdpBatch: datagrams that are received together, and their answers, which go together, too.
//
// Purpose: one system call for many questions. An answer leaves from the address that was asked, also where a socket
// stands for all addresses of the machine.
// Units and ranges: up to mostCM datagrams. One of more than packetBytesCM is cut, which nobody takes for a question.
// Ownership: owns all storage; borrows the socket for a call.
// Threads: one each. Errors: construction throws std::bad_alloc; what cannot be sent is lost, as datagrams may be.
// Complexity: linear in the datagrams.
#pragma once

#include "host/dns/EnumAnswers.h"

#include <array>
#include <memory>
#include <netinet/in.h>
#include <span>
#include <sys/socket.h>

namespace nphost {

// The address of whoever sends; IPv4 as such, also where it came by a socket of IPv6.
DnsClient clientOf(sockaddr_storage const& peer);

class UdpBatch {
  public:
    static constexpr std::size_t mostCM = 64;
    static constexpr std::size_t packetBytesCM = 4096;

    // Has the system tell which address was asked, and keep larger bursts.
    static void prepare(int descriptor) noexcept;

    UdpBatch();
    UdpBatch(UdpBatch const&) = delete;
    UdpBatch& operator=(UdpBatch const&) = delete;

    // What waits; does not wait itself. The questions are good until the next call.
    std::span<EnumQuery> receive(int descriptor) noexcept;
    // Who has sent one of them.
    sockaddr_storage const& peer(std::size_t index) const { return storageM->peers[index]; }
    // The answers of what receive gave last.
    void send(int descriptor) noexcept;

  private:
    struct Storage {
        std::array<std::array<char, packetBytesCM>, mostCM> packets;
        std::array<std::array<char, EnumAnswers::mostAnswerBytesCM>, mostCM> answers;
        std::array<sockaddr_storage, mostCM> peers;
        struct alignas(cmsghdr) Control {
            std::array<char, CMSG_SPACE(sizeof(in6_pktinfo))> bytes;
        };
        std::array<Control, mostCM> controls;
    };

    static void returnToSender(msghdr& message) noexcept;

    std::unique_ptr<Storage> storageM;
    std::array<EnumQuery, mostCM> queriesM;
    std::array<iovec, mostCM> piecesM{};
    std::array<mmsghdr, mostCM> messagesM{};
    std::size_t countM = 0;
};

} // namespace nphost
