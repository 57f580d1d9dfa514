#include "host/dns/Wire.h"

#include <cstring>

namespace nphost {

namespace {

constexpr std::uint16_t responseFlag = 0x8000;
constexpr std::uint16_t opcodeMask = 0x7800;
constexpr std::uint16_t authoritativeFlag = 0x0400;
constexpr std::uint16_t truncatedFlag = 0x0200;
constexpr std::uint16_t keptFlags = opcodeMask | 0x0110; // recursion desired, checking disabled
constexpr std::uint32_t signaturesFlag = 0x8000;
constexpr std::uint16_t cookieOption = 10;
constexpr std::size_t leastUdpBytes = 512;

// Takes numbers and texts off the front of a message; what is not there makes it `isOver`, and gives 0 and nothing.
class Reader {
  public:
    explicit Reader(std::string_view rest) : restM(rest) {}

    std::uint16_t take16() {
        std::string_view const bytes = take(2);
        return bytes.empty() ? 0
                             : static_cast<std::uint16_t>(static_cast<unsigned char>(bytes[0]) << 8 |
                                                          static_cast<unsigned char>(bytes[1]));
    }
    std::uint32_t take32() {
        std::uint32_t const high = take16();
        return high << 16 | take16();
    }
    std::string_view take(std::size_t count) {
        if (count > restM.size()) {
            isOverM = true;
            restM = {};
            return {};
        }
        std::string_view const taken = restM.substr(0, count);
        restM.remove_prefix(count);
        return taken;
    }
    std::string_view rest() const { return restM; }
    bool isOver() const { return isOverM; }

  private:
    std::string_view restM;
    bool isOverM = false;
};

// A client's alone, or with one that a server has made.
bool isCookie(std::size_t length) {
    return length == 8 || (length >= 16 && length <= 40);
}

bool readOptions(std::string_view options, DnsQuestion& question) {
    for (Reader reader(options); !reader.rest().empty();) {
        std::uint16_t const code = reader.take16();
        std::string_view const content = reader.take(reader.take16());
        if (reader.isOver() || (code == cookieOption && !isCookie(content.size())))
            return false;
        if (code == cookieOption && question.cookie.empty()) // of several the first counts
            question.cookie = content;
    }
    return true;
}

// The one record that may follow a question.
bool readOpt(Reader& reader, DnsQuestion& question) {
    std::string_view const owner = reader.take(1);
    if (owner != std::string_view("\0", 1) || reader.take16() != DNS_OPT)
        return false;
    std::uint16_t const bytes = reader.take16();
    std::uint32_t const flags = reader.take32();
    std::string_view const options = reader.take(reader.take16());
    if (reader.isOver())
        return false;
    question.hasOpt = true;
    question.udpBytes = bytes < leastUdpBytes ? leastUdpBytes : bytes;
    question.version = static_cast<std::uint8_t>(flags >> 16);
    question.wantsSignatures = (flags & signaturesFlag) != 0;
    // What the options of another version look like is not known.
    return question.version != 0 || readOptions(options, question);
}

bool readName(Reader& reader, DnsQuestion& question) {
    std::string_view const begin = reader.rest();
    question.name = reader.take(dnsNameLength(begin));
    question.type = reader.take16();
    question.classCode = reader.take16();
    if (question.name.empty() || reader.isOver() || question.type == 0 || question.type == DNS_OPT)
        return false;
    question.question = begin.substr(0, question.name.size() + 4);
    return true;
}

} // namespace

std::size_t dnsNameLength(std::string_view text) {
    for (std::size_t at = 0; at < text.size() && at < mostDnsNameBytesCM;) {
        auto const length = static_cast<unsigned char>(text[at]);
        if (length == 0)
            return at + 1;
        if (length > mostDnsLabelBytesCM)
            return 0;
        at += length + std::size_t{1};
    }
    return 0;
}

DnsReading readDnsQuestion(std::string_view packet, DnsQuestion& question) {
    question = {};
    if (packet.size() < dnsHeaderBytesCM)
        return DnsReading::SILENCE;
    Reader reader(packet);
    question.id = reader.take16();
    question.flags = reader.take16();
    if ((question.flags & responseFlag) != 0)
        return DnsReading::SILENCE;
    if ((question.flags & opcodeMask) != 0)
        return DnsReading::NOT_IMPLEMENTED;
    std::uint16_t const questions = reader.take16();
    std::uint32_t const before = reader.take32(); // answers and authorities
    std::uint16_t const additional = reader.take16();
    if (questions > 1 || (questions == 1 && !readName(reader, question)))
        return DnsReading::MALFORMED;
    if (question.isTransfer()) // which has records of its own
        return DnsReading::QUESTION;
    if (before != 0 || additional > 1 || (additional == 1 && !readOpt(reader, question)) || !reader.rest().empty())
        return DnsReading::MALFORMED;
    if (question.version != 0)
        return DnsReading::BAD_VERSION;
    // Without a question one may ask for a cookie.
    return questions == 0 && question.cookie.empty() ? DnsReading::MALFORMED : DnsReading::QUESTION;
}

DnsWriter::DnsWriter(char* place, std::size_t most, DnsQuestion const& question)
    : placeM(place), mostM(most), questionM(question), usedM(dnsHeaderBytesCM) {
    put(question.question);
}

void DnsWriter::put(unsigned char byte) {
    char const one = static_cast<char>(byte);
    put(std::string_view(&one, 1));
}

void DnsWriter::put16(std::size_t value) {
    put8(value >> 8);
    put8(value);
}

void DnsWriter::put32(std::uint32_t value) {
    put16(value >> 16);
    put16(value);
}

void DnsWriter::put(std::string_view bytes) {
    if (bytes.size() > mostM - usedM) {
        fitsM = false;
        return;
    }
    if (!bytes.empty())
        std::memcpy(placeM + usedM, bytes.data(), bytes.size());
    usedM += bytes.size();
}

void DnsWriter::putText(std::string_view text) {
    fitsM = fitsM && text.size() <= mostDnsTextBytesCM;
    put8(text.size());
    put(text);
}

void DnsWriter::begin(Section section, std::size_t owner, std::uint16_t type, std::uint32_t ttl) {
    ++countsM[section];
    put16(0xc000 | (dnsHeaderBytesCM + owner)); // names of questions are short enough for any of it to be pointed at
    put16(type);
    put16(dnsInternetCM);
    put32(ttl);
    recordM = usedM;
    put16(0);
}

void DnsWriter::endRecord() {
    if (!fitsM)
        return;
    std::size_t const end = usedM;
    usedM = recordM;
    put16(end - recordM - 2);
    usedM = end;
}

void DnsWriter::naptr(Section section, std::size_t owner, std::uint32_t ttl, DnsNaptr const& record) {
    begin(section, owner, DNS_NAPTR, ttl);
    put16(record.order);
    put16(record.preference);
    putText(record.flags);
    putText(record.service);
    putText(record.regexp);
    put8(0); // no replacement
    endRecord();
}

void DnsWriter::soa(Section section, std::size_t owner, std::uint32_t ttl, DnsSoa const& record) {
    begin(section, owner, DNS_SOA, ttl);
    put(record.nameServer);
    put(record.contact);
    for (std::uint32_t const number : {record.serial, record.refresh, record.retry, record.expire, record.minimum})
        put32(number);
    endRecord();
}

void DnsWriter::ns(Section section, std::size_t owner, std::uint32_t ttl, std::string_view server) {
    begin(section, owner, DNS_NS, ttl);
    put(server);
    endRecord();
}

void DnsWriter::putOpt(End const& end) {
    put8(0); // the root's name
    put16(DNS_OPT);
    put16(udpBytesCM);
    put8(static_cast<unsigned>(end.rcode) >> 4);
    put8(0); // the version
    put16(questionM.wantsSignatures ? signaturesFlag : 0);
    put16(end.cookie.empty() ? 0 : 4 + end.cookie.size());
    if (!end.cookie.empty()) {
        put16(cookieOption);
        put16(end.cookie.size());
        put(end.cookie);
    }
}

std::size_t DnsWriter::end(End const& end) {
    if (questionM.hasOpt)
        putOpt(end);
    std::size_t const length = usedM;
    usedM = 0;
    put16(questionM.id);
    put16(static_cast<unsigned>(questionM.flags & keptFlags) | responseFlag |
          (end.isAuthoritative ? authoritativeFlag : 0U) | (end.isTruncated ? truncatedFlag : 0U) |
          (static_cast<unsigned>(end.rcode) & 15));
    put16(questionM.question.empty() ? 0 : 1);
    put16(countsM[ANSWER]);
    put16(countsM[AUTHORITY]);
    put16(questionM.hasOpt ? 1 : 0);
    return fitsM ? length : 0;
}

} // namespace nphost
