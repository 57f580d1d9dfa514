// Fuzz target: messages of DNS, from a packet to its answer.
//
// Input: a byte whose bits choose how the packet came (TCP, trusted, limited, the size of its address), then the packet.
// Each that is taken for a question is read once more by a naive reader, and must be the same question to it. What is
// answered repeats the question byte for byte, is no longer than what may be sent there, and can be read; with the
// cookie that is given back, and over TCP, the same question gets an answer that is whole.
#include "fuzz/Fuzz.h"
#include "tests/EnumSite.h"

#include <algorithm>
#include <optional>

namespace {

using npfuzz::checkEqual;
using nphost::DnsOutcome;

constexpr std::size_t longestCM = 4096;

struct Naive {
    std::string question;
    bool hasOpt = false;
    unsigned udpBytes = 512;
    std::string cookie;
};

unsigned number(std::string_view text, std::size_t at) {
    return static_cast<unsigned char>(text.at(at)) * 256U + static_cast<unsigned char>(text.at(at + 1));
}

// Throws std::out_of_range where bytes are missing.
std::optional<Naive> readNaively(std::string_view packet) {
    Naive naive;
    unsigned const questions = number(packet, 4);
    if (number(packet, 2) >= 0x8000 || (number(packet, 2) / 2048) % 16 != 0 || questions > 1)
        return std::nullopt;
    std::size_t at = 12;
    if (questions == 1) {
        while (packet.at(at) != 0) {
            if (packet.at(at) < 0 || packet.at(at) > 63)
                return std::nullopt;
            at += static_cast<std::size_t>(packet.at(at)) + 1;
        }
        if (at - 12 + 1 > 255)
            return std::nullopt;
        unsigned const type = number(packet, at + 1);
        number(packet, at + 3);
        at += 5;
        naive.question = packet.substr(12, at - 12);
        if (type >= 249 && type <= 254)
            return naive;
        if (type == 0 || type == 41)
            return std::nullopt;
    }
    if (number(packet, 6) != 0 || number(packet, 8) != 0 || number(packet, 10) > 1)
        return std::nullopt;
    if (number(packet, 10) == 1) {
        if (packet.at(at) != 0 || number(packet, at + 1) != 41 || packet.at(at + 6) != 0)
            return std::nullopt;
        naive.hasOpt = true;
        naive.udpBytes = std::max(number(packet, at + 3), 512U);
        std::size_t const end = at + 11 + number(packet, at + 9);
        at += 11;
        while (at < end) {
            std::size_t const length = number(packet, at + 2);
            std::string const content(packet.substr(at + 4, length));
            if (at + 4 + length > std::min(end, packet.size()))
                return std::nullopt;
            if (number(packet, at) == 10 && length != 8 && (length < 16 || length > 40))
                return std::nullopt;
            if (number(packet, at) == 10 && naive.cookie.empty())
                naive.cookie = content;
            at += 4 + length;
        }
    }
    if (at != packet.size() || (questions == 0 && naive.cookie.empty()))
        return std::nullopt;
    return naive;
}

std::optional<Naive> naiveOf(std::string_view packet) {
    try {
        return readNaively(packet);
    } catch (std::out_of_range const&) {
        return std::nullopt;
    }
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const input = npfuzz::textOf(data, std::min(size, longestCM));
    if (input.empty())
        return 0;
    std::string const packet(input.substr(1)); // of its own: what lies behind it is found by the sanitizers
    auto const how = static_cast<unsigned char>(input[0]);
    static EnumSite site;
    nphost::EnumQuery query;
    query.isTcp = (how & 1) != 0;
    query.isTrusted = (how & 2) != 0;
    query.isLimited = (how & 4) != 0;
    query.client.bytes = (how & 8) != 0 ? 16 : 4;
    EnumSite::Answer const answer = site.ask(packet, query);

    std::optional<Naive> const naive = naiveOf(packet);
    nphost::DnsQuestion question;
    bool const isTaken = nphost::readDnsQuestion(packet, question) == nphost::DnsReading::QUESTION;
    checkEqual("being a question", packet, isTaken, naive.has_value());
    if (naive) {
        checkEqual("the question", packet, question.question, naive->question);
        checkEqual("EDNS", packet, question.hasOpt, naive->hasOpt);
        checkEqual("the size", packet, question.udpBytes, naive->udpBytes);
        checkEqual("the cookie", packet, question.cookie, naive->cookie);
    }
    checkEqual("having an answer", packet, !answer.bytes.empty(), answer.outcome != DnsOutcome::SILENCE);
    if (answer.bytes.empty())
        return 0;
    checkEqual("the answer's being readable", packet, nphost::zoneText(answer.bytes).has_value(), true);
    checkEqual("its identifier", packet, answer.bytes.substr(0, 2), packet.substr(0, 2));
    bool const isResponse = (static_cast<unsigned char>(answer.bytes[2]) & 0x80) != 0;
    checkEqual("its being one", packet, isResponse, true);
    if (!naive)
        return 0;
    checkEqual("the question's copy", packet, answer.bytes.substr(12, naive->question.size()), naive->question);
    if (!query.isTcp)
        checkEqual("fitting", packet, answer.bytes.size() <= std::min(naive->udpBytes, 1232U), true);
    bool const mustBeSmall = !query.isTcp && !query.isTrusted && naive->cookie.size() < 24;
    bool const isShortest = answer.outcome == DnsOutcome::TRUNCATED || answer.outcome == DnsOutcome::BADCOOKIE;
    bool const isRefusal = answer.outcome == DnsOutcome::REFUSED || naive->question.empty();
    if (mustBeSmall && !isShortest && !isRefusal)
        checkEqual("being small", packet, answer.bytes.size() <= packet.size() * 3 / 2, true);
    query.isTcp = true;
    EnumSite::Answer const whole = site.ask(packet, query);
    checkEqual("being whole over TCP", packet,
               whole.outcome != DnsOutcome::TRUNCATED && whole.outcome != DnsOutcome::BADCOOKIE, true);
    checkEqual("being the same over TCP", packet, isShortest || whole.bytes == answer.bytes, true);
    return 0;
}
