// nphost::EnumAnswers: questions of DNS for numbers, and their answers.
//
// Purpose: free of any transport. A batch of messages goes in as it was received, and all numbers in it are looked up
// together; beside each comes its answer.
//
// Of a number that is found there are one or two NAPTR records (RFC 6116, RFC 4769): E2U+pstn:tel, and E2U+pstn:sip
// where the apex has a gateway. Of all others there are none; then the name exists or not:
// - It exists when something is found for it now or later, or for a longer one that begins with it, and whenever it has
//   fewer digits than a number that is answered for. A resolver that gets to know that a name does not exist asks for
//   nothing below it any more (RFC 8020), and may ask for a name label by label.
// - It does not exist when no data that are loaded will ever answer for it or below it, and when it is no number.
// Units and ranges: an answer may be kept for `ttl` seconds, and not beyond the number's next change, but for one second
// at least.
// Ownership: borrows its parts and the messages; owns a batch of look-ups.
// Threads: one each; the parts are shared.
// Errors: none; where memory lacks, the answer is SERVFAIL.
// Complexity: that of the look-ups. From the second batch on nothing is allocated, but by networks' names that are longer
// than all before; no lock is taken but the look-ups', and one when the table of networks is another.
// Source: RFC 1035, 6116, 4769, 4694, 2308, 6891, 7873, 8020, 8482.
#pragma once

#include "framework/BAS/DateTime.h"
#include "host/dns/Cookies.h"
#include "host/dns/Wire.h"
#include "host/dns/Zone.h"
#include "host/module/LookUpBatch.h"

#include <memory>
#include <span>
#include <string_view>
#include <vector>

namespace nphost {

class DataClock;
class NetworkTable;
class Networks;

// What became of a question, for counters.
enum class DnsOutcome {
    ANSWERED,
    NODATA,
    NXDOMAIN,
    REFUSED,
    FORMERR,
    NOTIMP,
    BADVERS,
    BADCOOKIE,
    TRUNCATED,
    SERVFAIL,
    SILENCE // not a question
};

struct EnumQuery {
    std::string_view packet; // as received; over TCP without its length
    char* place = nullptr;   // for the answer: EnumAnswers::mostAnswerBytesCM; apart from the packet
    DnsClient client;        // IPv4 in four bytes, also where it came by a socket of IPv6
    bool isTcp = false;      // as large an answer as may be
    bool isTrusted = false;  // its address cannot be forged: the answer may be much larger than the question
    bool isLimited = false;  // too many answers go there: none without a good cookie, but the advice to ask by TCP

    std::size_t length = 0; // of the answer; 0: nothing is sent
    DnsOutcome outcome = DnsOutcome::SILENCE;
};

class EnumAnswers {
  public:
    static constexpr std::size_t mostAnswerBytesCM = 1232; // also over TCP: no answer has more
    static constexpr std::size_t leastUdpBytesCM = 512;

    struct Parts {
        LoadedPlugIn& plugIn;
        Networks const& networks;
        DataClock const& clock;
        EnumZones const& zones;
        DnsCookies const& cookies;
    };

    // `most`: questions in a batch.
    EnumAnswers(Parts const& parts, std::size_t most);
    EnumAnswers(EnumAnswers const&) = delete;
    EnumAnswers& operator=(EnumAnswers const&) = delete;

    // Not more than `most`; `utc` is the present instant in UTC.
    void answer(std::span<EnumQuery> queries, BAS::DateTime utc) noexcept;

  private:
    using Detail = LookUpBatch::Detail;
    struct Asked { // of one query
        DnsQuestion question;
        EnumName name;
        std::size_t lookUp = 0; // where in the batch; 0: none, and it is answered
        bool isKnown = false;   // by its cookie
        bool hasCookie = false;
        DnsCookies::Whole cookie;
    };

    void read(EnumQuery& query, Asked& asked);
    bool readCookie(EnumQuery const& query, Asked& asked) const;
    void ask(Asked& asked);
    void lookUp();
    void refresh();
    void settle(EnumQuery& query, Asked const& asked);
    void writeApex(EnumQuery& query, Asked const& asked);
    void writeNumber(EnumQuery& query, Asked const& asked);
    bool writeRecords(DnsWriter& writer, Asked const& asked, Detail const& detail, std::uint32_t ttl);
    bool uriOf(Asked const& asked, Detail const& detail, UriTemplate::Uri& uri);
    void writeNothing(EnumQuery& query, Asked const& asked, DnsOutcome outcome, std::uint32_t ttl) const;
    void finish(EnumQuery& query, Asked const& asked, DnsWriter& writer, DnsOutcome outcome) const;
    void refuse(EnumQuery& query, Asked const& asked, DnsOutcome outcome) const;
    void advise(EnumQuery& query, Asked const& asked, bool mayBeKnown) const;
    DnsSoa soaOf(Asked const& asked, std::uint32_t ttl) const;
    std::uint32_t ttlOf(BAS::DateTime nextChange) const;
    std::string_view cookieOf(Asked const& asked) const;

    Parts const partsM;
    std::shared_ptr<NetworkTable const> tableM; // that of the version
    std::uint64_t tableVersionM = 0;
    Network unknownM;   // what is said of one that the table lacks
    LookUpBatch batchM; // its first look-up tells which data there are
    std::vector<Asked> askedM;
    BAS::DateTime utcM; // of the present batch
    BAS::DateTime atM;  // the same by the data's clock
    std::uint32_t secondsM = 0;
    bool failedM = false;
};

} // namespace nphost
