#include "host/dns/UdpBatch.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace nphost {

DnsClient clientOf(sockaddr_storage const& peer) {
    DnsClient client;
    if (peer.ss_family == AF_INET) {
        client.bytes = 4;
        std::memcpy(client.address.data(), &reinterpret_cast<sockaddr_in const&>(peer).sin_addr, 4);
    } else if (peer.ss_family == AF_INET6) {
        in6_addr const& address = reinterpret_cast<sockaddr_in6 const&>(peer).sin6_addr;
        constexpr std::size_t mappedHead = 12;
        bool const isMapped = IN6_IS_ADDR_V4MAPPED(&address);
        client.bytes = isMapped ? 4 : 16;
        std::memcpy(client.address.data(), address.s6_addr + (isMapped ? mappedHead : 0), client.bytes);
    }
    return client;
}

void UdpBatch::prepare(int descriptor) noexcept {
    int const on = 1;
    int const burst = 1 << 20; // bytes; the system grants what it allows
    setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &burst, sizeof burst);
    int family = AF_INET;
    socklen_t length = sizeof family;
    getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &family, &length);
    if (family == AF_INET6)
        setsockopt(descriptor, IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on);
    else
        setsockopt(descriptor, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
    // No route's idea of how large a datagram may be is believed: it could be forged, too.
    int const discover = IP_PMTUDISC_DONT;
    setsockopt(descriptor, IPPROTO_IP, IP_MTU_DISCOVER, &discover, sizeof discover);
}

UdpBatch::UdpBatch() : storageM(std::make_unique<Storage>()) {
    for (std::size_t i = 0; i < mostCM; ++i) {
        msghdr& message = messagesM[i].msg_hdr;
        message.msg_iov = &piecesM[i];
        message.msg_iovlen = 1;
        queriesM[i].place = storageM->answers[i].data();
    }
}

std::span<EnumQuery> UdpBatch::receive(int descriptor) noexcept {
    for (std::size_t i = 0; i < mostCM; ++i) {
        msghdr& message = messagesM[i].msg_hdr;
        piecesM[i] = {storageM->packets[i].data(), packetBytesCM};
        message.msg_name = &storageM->peers[i];
        message.msg_namelen = sizeof(sockaddr_storage);
        message.msg_control = storageM->controls[i].bytes.data();
        message.msg_controllen = sizeof storageM->controls[i].bytes;
        message.msg_flags = 0;
    }
    int const received = recvmmsg(descriptor, messagesM.data(), mostCM, MSG_DONTWAIT, nullptr);
    countM = static_cast<std::size_t>(std::max(received, 0));
    for (std::size_t i = 0; i < countM; ++i) {
        EnumQuery& query = queriesM[i];
        query.packet = {storageM->packets[i].data(), messagesM[i].msg_len};
        query.client = clientOf(storageM->peers[i]);
        query.isTcp = query.isTrusted = query.isLimited = false;
        query.length = 0;
    }
    return {queriesM.data(), countM};
}

// What the system told of the address asked becomes the address to send from; the interface is the route's to choose,
// but for addresses that are only good on one.
void UdpBatch::returnToSender(msghdr& message) noexcept {
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
        bool const isFour = part->cmsg_level == IPPROTO_IP && part->cmsg_type == IP_PKTINFO;
        bool const isSix = part->cmsg_level == IPPROTO_IPV6 && part->cmsg_type == IPV6_PKTINFO;
        if (isFour) {
            in_pktinfo info;
            std::memcpy(&info, CMSG_DATA(part), sizeof info);
            info.ipi_ifindex = 0;
            std::memcpy(CMSG_DATA(part), &info, sizeof info);
        } else if (isSix) {
            in6_pktinfo info;
            std::memcpy(&info, CMSG_DATA(part), sizeof info);
            if (!IN6_IS_ADDR_LINKLOCAL(&info.ipi6_addr))
                info.ipi6_ifindex = 0;
            std::memcpy(CMSG_DATA(part), &info, sizeof info);
        }
        if (isFour || isSix) { // alone: a passed socket may have others, which are for reading only
            std::size_t const length = isFour ? CMSG_SPACE(sizeof(in_pktinfo)) : CMSG_SPACE(sizeof(in6_pktinfo));
            std::memmove(message.msg_control, part, length);
            message.msg_controllen = length;
            return;
        }
    }
    message.msg_control = nullptr;
    message.msg_controllen = 0;
}

void UdpBatch::send(int descriptor) noexcept {
    std::size_t count = 0;
    for (std::size_t i = 0; i < countM; ++i) {
        if (queriesM[i].length == 0)
            continue;
        returnToSender(messagesM[i].msg_hdr);
        piecesM[count] = {queriesM[i].place, queriesM[i].length};
        messagesM[count].msg_hdr = messagesM[i].msg_hdr;
        messagesM[count].msg_hdr.msg_iov = &piecesM[count];
        messagesM[count].msg_hdr.msg_flags = 0;
        ++count;
    }
    // An error is the first message's alone: one asker that cannot be reached must not keep the others waiting. Where the
    // system has no room, the rest is lost.
    for (std::size_t done = 0; done < count;) {
        int const sent =
            sendmmsg(descriptor, &messagesM[done], static_cast<unsigned>(count - done), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0 && (errno == EAGAIN || errno == ENOBUFS))
            return;
        done += static_cast<std::size_t>(std::max(sent, 1));
    }
}

} // namespace nphost
