#include "host/dns/DnsConnection.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <sys/socket.h>
#include <utility>

namespace nphost {

namespace {

constexpr int mostReadsCM = 4; // at once: others wait, too

std::size_t lengthAt(std::string_view text) {
    return std::size_t{static_cast<unsigned char>(text[0])} << 8 | static_cast<unsigned char>(text[1]);
}

} // namespace

TcpBatch::TcpBatch(Answer answer) : answerM(std::move(answer)), storageM(std::make_unique<Storage>()) {
    for (std::size_t i = 0; i < mostCM; ++i)
        queriesM[i].place = storageM->answers[i].data() + lengthBytesCM;
}

void TcpBatch::add(std::string_view packet, DnsClient const& client) {
    EnumQuery& query = queriesM[countM++];
    query.packet = packet;
    query.client = client;
    query.isTcp = query.isTrusted = true;
    query.isLimited = false;
    query.length = 0;
}

std::span<iovec> TcpBatch::answer() {
    std::size_t const count = std::exchange(countM, 0);
    answerM({queriesM.data(), count});
    std::size_t pieces = 0;
    for (std::size_t i = 0; i < count; ++i) {
        EnumQuery const& query = queriesM[i];
        if (query.length == 0)
            continue;
        char* const begin = query.place - lengthBytesCM;
        begin[0] = static_cast<char>(query.length >> 8);
        begin[1] = static_cast<char>(query.length);
        piecesM[pieces++] = {begin, lengthBytesCM + query.length};
    }
    return {piecesM.data(), pieces};
}

DnsConnection::DnsConnection(FileDescriptor socket, DnsClient const& client, Patience const& patience, Time now)
    : socketM(std::move(socket)), clientM(client), patienceM(patience), deadlineM(now + patience.idle) {}

void DnsConnection::step(TcpBatch& batch, Time now) noexcept {
    try {
        write();
        canReadM = true;
        for (int i = 0; i < mostReadsCM && canReadM && !overM && !endedM && outputM.empty(); ++i)
            read(batch, now);
        renew(now);
        // What came of a message that will never be whole goes with it.
        overM = overM || (endedM && outputM.empty());
    } catch (std::exception const&) {
        overM = true;
    }
}

void DnsConnection::read(TcpBatch& batch, Time now) {
    auto& block = batch.block();
    std::copy(inputM.begin(), inputM.end(), block.begin());
    ssize_t const count = recv(socketM.get(), block.data() + inputM.size(), block.size() - inputM.size(), MSG_DONTWAIT);
    if (count <= 0) {
        canReadM = false;
        endedM = count == 0;
        overM = count < 0 && errno != EAGAIN && errno != EINTR;
        return;
    }
    std::string_view input(block.data(), inputM.size() + static_cast<std::size_t>(count));
    canReadM = input.size() == block.size();
    std::size_t const skipped = std::min(skippedM, input.size());
    skippedM -= skipped;
    input.remove_prefix(skipped);
    take(batch, input, now);
}

// All messages of a block, the last of which may be there in part.
void DnsConnection::take(TcpBatch& batch, std::string_view input, Time now) {
    bool const hadBegun = waitsForM == MESSAGE;
    bool took = false;
    while (input.size() >= TcpBatch::lengthBytesCM) {
        std::size_t const length = lengthAt(input);
        std::size_t const wanted = TcpBatch::lengthBytesCM + std::min(length, TcpBatch::messageBytesCM);
        if (input.size() < wanted)
            break;
        batch.add(input.substr(TcpBatch::lengthBytesCM, wanted - TcpBatch::lengthBytesCM), clientM);
        std::size_t const whole = TcpBatch::lengthBytesCM + length;
        skippedM = whole - std::min(whole, input.size());
        input.remove_prefix(whole - skippedM);
        took = true;
        if (batch.isFull())
            answer(batch);
    }
    answer(batch);
    bool const hasBegun = !input.empty() || skippedM > 0;
    inputM = std::string(input); // an idle connection keeps no storage
    // Bytes alone do not prolong the time that a message has.
    if (hasBegun && (took || !hadBegun))
        deadlineM = now + patienceM.message;
    else if (!hasBegun)
        deadlineM = now + patienceM.idle;
    waitsForM = hasBegun ? MESSAGE : IDLE;
}

void DnsConnection::answer(TcpBatch& batch) {
    std::span<iovec> pieces = batch.answer();
    std::size_t sent = 0;
    if (outputM.empty() && !pieces.empty()) {
        msghdr message = {};
        message.msg_iov = pieces.data();
        message.msg_iovlen = pieces.size();
        ssize_t const count = sendmsg(socketM.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        overM = overM || (count < 0 && errno != EAGAIN && errno != EINTR);
        sent = static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
    for (iovec const& piece : pieces) {
        std::size_t const done = std::min(sent, piece.iov_len);
        sent -= done;
        outputM.append(static_cast<char const*>(piece.iov_base) + done, piece.iov_len - done);
    }
}

void DnsConnection::write() noexcept {
    while (!outputM.empty()) {
        ssize_t const count = send(socketM.get(), outputM.data(), outputM.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0) {
            overM = errno != EAGAIN && errno != EINTR;
            return;
        }
        outputM.erase(0, static_cast<std::size_t>(count));
    }
}

// The time for answers begins with the first that cannot be written, and ends when all are.
void DnsConnection::renew(Time now) {
    if (!outputM.empty() && waitsForM != ANSWER) {
        waitsForM = ANSWER;
        deadlineM = now + patienceM.answer;
    } else if (outputM.empty() && waitsForM == ANSWER) {
        bool const hasBegun = !inputM.empty() || skippedM > 0;
        waitsForM = hasBegun ? MESSAGE : IDLE;
        deadlineM = now + (hasBegun ? patienceM.message : patienceM.idle);
        std::string().swap(outputM);
    }
}

std::optional<ConnectionDrop> DnsConnection::tick(Time now) noexcept {
    if (overM || now < deadlineM)
        return std::nullopt;
    overM = true;
    if (waitsForM == IDLE)
        return std::nullopt;
    return waitsForM == MESSAGE ? ConnectionDrop::SLOW_REQUEST : ConnectionDrop::SLOW_READER;
}

void DnsConnection::beginStop(TcpBatch& batch, Time now) noexcept {
    step(batch, now);
    endedM = true;
    overM = overM || outputM.empty();
}

} // namespace nphost
