// nphost::DnsConnection: a connection over TCP with questions of DNS.
//
// Purpose: takes messages apart, has all that are there answered together, and writes the answers in their order. Who
// does not read gets no further answers, and is not read from either.
// Units and ranges: a message that is longer than TcpBatch::messageBytesCM is answered as the mistake that it is; the
// rest of it is passed over. What a connection may keep is bounded: less than a message, and the answers to one block.
// Ownership: owns its socket; borrows the batch, which is its thread's, for a call.
// Threads: one. Errors: none; want of memory ends the connection.
// Complexity: linear in the bytes.
// Source: RFC 7766.
#pragma once

#include "host/base/FileDescriptor.h"
#include "host/dns/EnumAnswers.h"
#include "host/service/Metrics.h"

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/uio.h>

namespace nphost {

// What all connections of a thread use, one after the other.
class TcpBatch {
  public:
    static constexpr std::size_t mostCM = 64;
    static constexpr std::size_t messageBytesCM = 4096;
    static constexpr std::size_t lengthBytesCM = 2; // before each message
    using Answer = std::function<void(std::span<EnumQuery>)>;

    explicit TcpBatch(Answer answer);

    std::array<char, lengthBytesCM + messageBytesCM>& block() { return storageM->block; }

    // Questions are added, up to mostCM, and answered together.
    void add(std::string_view packet, DnsClient const& client);
    bool isFull() const { return countM == mostCM; }
    // The answers with their lengths, which are good until the next call of add; how many there are.
    std::span<iovec> answer();

  private:
    struct Storage {
        std::array<char, lengthBytesCM + messageBytesCM> block;
        std::array<std::array<char, lengthBytesCM + EnumAnswers::mostAnswerBytesCM>, mostCM> answers;
    };

    Answer answerM;
    std::unique_ptr<Storage> storageM;
    std::array<EnumQuery, mostCM> queriesM;
    std::array<iovec, mostCM> piecesM{};
    std::size_t countM = 0;
};

class DnsConnection {
  public:
    using Time = std::chrono::steady_clock::time_point;

    struct Patience {
        std::chrono::seconds idle;       // without a question
        std::chrono::seconds message{5}; // from a message's first byte to its last
        std::chrono::seconds answer{10}; // until an answer is taken
    };

    DnsConnection(FileDescriptor socket, DnsClient const& client, Patience const& patience, Time now);

    int descriptor() const { return socketM.get(); }
    // Answers are waiting for their reader, and no questions are read.
    bool isWriting() const { return !outputM.empty(); }
    bool isOver() const { return overM; }
    // Writes and reads what is possible without waiting.
    void step(TcpBatch& batch, Time now) noexcept;
    // Over when it is late. Says why when that is the other side's fault.
    std::optional<ConnectionDrop> tick(Time now) noexcept;
    // Answers what is there already, and is over when that is written.
    void beginStop(TcpBatch& batch, Time now) noexcept;

  private:
    void read(TcpBatch& batch, Time now);
    void take(TcpBatch& batch, std::string_view input, Time now);
    void answer(TcpBatch& batch);
    void write() noexcept;
    void renew(Time now);

    FileDescriptor socketM;
    DnsClient const clientM;
    Patience const patienceM;
    std::string inputM;       // the beginning of a message
    std::size_t skippedM = 0; // bytes to come of a message that is too long
    std::string outputM;      // answers for which the system has no room
    Time deadlineM;
    enum { IDLE, MESSAGE, ANSWER } waitsForM = IDLE;
    bool canReadM = true; // there may be more
    bool endedM = false;  // the other side sends no more, or shall not
    bool overM = false;
};

} // namespace nphost
