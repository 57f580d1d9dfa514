// The form of DNS messages: questions are read, answers are written.
//
// Purpose: what an authoritative server without transfers and signatures needs of it, and no more. A question is taken
// only when nobody can read it in two ways: one question, nothing behind it but one OPT record at the most, no byte
// left over, no name that points elsewhere.
// Units and ranges: names as they lie on the wire, lengths before labels, the root's 0 at the end: 255 bytes, 63 a label.
// Ownership: what was read refers to the packet; the writer borrows its place.
// Threads: no state. Errors: values; nothing is thrown or allocated. Complexity: linear in the message.
// Source: RFC 1035, RFC 6891 (OPT), RFC 7873 (cookies), RFC 3403 (NAPTR), RFC 2308 (negative answers).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace nphost {

constexpr std::size_t mostDnsNameBytesCM = 255;
constexpr std::size_t mostDnsLabelBytesCM = 63;
constexpr std::size_t dnsHeaderBytesCM = 12;
constexpr std::size_t mostDnsTextBytesCM = 255; // of a character-string

enum class DnsRcode : std::uint16_t {
    NOERROR = 0,
    FORMERR = 1,
    SERVFAIL = 2,
    NXDOMAIN = 3,
    NOTIMP = 4,
    REFUSED = 5,
    BADVERS = 16,
    BADCOOKIE = 23
};

enum DnsType : std::uint16_t {
    DNS_NS = 2,
    DNS_SOA = 6,
    DNS_NAPTR = 35,
    DNS_OPT = 41,
    DNS_TKEY = 249,
    DNS_MAILA = 254, // transfers and the like are from TKEY to here
    DNS_ANY = 255
};
constexpr std::uint16_t dnsInternetCM = 1; // the class

struct DnsQuestion {
    std::uint16_t id = 0;
    std::uint16_t flags = 0;
    std::string_view question; // as it came: name, type, class; empty: there is none, or it could not be read
    std::string_view name;     // in it
    std::uint16_t type = 0;
    std::uint16_t classCode = 0;
    bool hasOpt = false;
    std::uint16_t udpBytes = 512; // that the asker takes
    std::uint8_t version = 0;     // of EDNS
    bool wantsSignatures = false; // DO, which is given back
    std::string_view cookie;      // 8 bytes, or 16 to 40; empty: none

    // What asks for more than records of a name: transfers and their kin.
    bool isTransfer() const { return type >= DNS_TKEY && type <= DNS_MAILA; }
};

// NOERROR, FORMERR, NOTIMP or BADVERS; SILENCE of what must not be answered: an answer, or less than a header. Of a
// question that is wrong, what comes before the mistake is read. Behind one for a transfer nothing is read.
enum class DnsReading { QUESTION, SILENCE, MALFORMED, NOT_IMPLEMENTED, BAD_VERSION };
DnsReading readDnsQuestion(std::string_view packet, DnsQuestion& question);

// Of a name that begins at `text`: its length with the root's 0; 0 when it is none, points elsewhere or is too long.
std::size_t dnsNameLength(std::string_view text);

// A byte of a name as it is compared: letters of ASCII are small. Lengths are none.
constexpr char lowerDnsByte(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

struct DnsNaptr {
    std::uint16_t order;
    std::uint16_t preference;
    std::string_view flags; // this and the next two: at most 255 bytes
    std::string_view service;
    std::string_view regexp;
};

struct DnsSoa {
    std::string_view nameServer; // names
    std::string_view contact;
    std::uint32_t serial;
    std::uint32_t refresh;
    std::uint32_t retry;
    std::uint32_t expire;
    std::uint32_t minimum;
};

// Writes one answer: first records of the answer section, then those of the authority section. What does not fit is
// noticed at the end. Owners are names within the question's, by where they begin in it.
class DnsWriter {
  public:
    // `place` has room for `most` bytes, a header's at least.
    DnsWriter(char* place, std::size_t most, DnsQuestion const& question);

    enum Section { ANSWER, AUTHORITY };
    void naptr(Section section, std::size_t owner, std::uint32_t ttl, DnsNaptr const& record);
    void soa(Section section, std::size_t owner, std::uint32_t ttl, DnsSoa const& record);
    void ns(Section section, std::size_t owner, std::uint32_t ttl, std::string_view server);

    struct End {
        DnsRcode rcode = DnsRcode::NOERROR;
        bool isAuthoritative = false;
        bool isTruncated = false;
        std::string_view cookie; // the whole option's content; empty: none
    };
    // Writes the OPT record, where the question has one, and the header; the message's length, or 0 when there was no
    // room for all of it.
    std::size_t end(End const& end);

    static constexpr std::uint16_t udpBytesCM = 1232; // that we take, and send at the most

  private:
    void put8(std::size_t value) { put(static_cast<unsigned char>(value)); }
    void put16(std::size_t value);
    void put32(std::uint32_t value);
    void put(unsigned char byte);
    void put(std::string_view bytes);
    void putText(std::string_view text);
    void begin(Section section, std::size_t owner, std::uint16_t type, std::uint32_t ttl);
    void endRecord();
    void putOpt(End const& end);

    char* const placeM;
    std::size_t const mostM;
    DnsQuestion const& questionM;
    std::size_t usedM;
    std::size_t recordM = 0; // where the present record's length stands
    unsigned countsM[2] = {};
    bool fitsM = true;
};

} // namespace nphost
