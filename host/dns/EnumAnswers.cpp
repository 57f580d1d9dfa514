#include "host/dns/EnumAnswers.h"

#include "host/fields/DataClock.h"
#include "host/fields/TimeZone.h"
#include "host/service/Networks.h"

#include <algorithm>
#include <array>
#include <exception>

namespace nphost {

namespace {

constexpr std::uint32_t refreshSeconds = 3600; // of the SOA, for secondaries that there are not
constexpr std::uint32_t retrySeconds = 600;
constexpr std::uint32_t expireSeconds = 86'400;
constexpr std::size_t mostStoredBytes = 64; // of a number with its access code
constexpr std::uint16_t orderCM = 100;
constexpr std::uint16_t telPreference = 10;
constexpr std::uint16_t sipPreference = 20;

DnsRcode rcodeOf(DnsOutcome outcome) {
    switch (outcome) {
    case DnsOutcome::NXDOMAIN:
        return DnsRcode::NXDOMAIN;
    case DnsOutcome::REFUSED:
        return DnsRcode::REFUSED;
    case DnsOutcome::FORMERR:
        return DnsRcode::FORMERR;
    case DnsOutcome::NOTIMP:
        return DnsRcode::NOTIMP;
    case DnsOutcome::BADVERS:
        return DnsRcode::BADVERS;
    case DnsOutcome::BADCOOKIE:
        return DnsRcode::BADCOOKIE;
    case DnsOutcome::SERVFAIL:
        return DnsRcode::SERVFAIL;
    default:
        return DnsRcode::NOERROR;
    }
}

// What replaces the number, as a regular expression of NAPTR says it: all of it, whatever it is.
using Expression = BoundedText<mostDnsTextBytesCM>;

void appendUri(Expression& out, std::string_view uri) {
    for (char const c : uri) {
        if (c == '!' || c == '\\')
            out.append('\\');
        out.append(c);
    }
}

Expression telExpression(std::string_view uri) {
    Expression expression;
    expression.append("!^.*$!");
    appendUri(expression, uri);
    expression.append('!');
    return expression;
}

// The subscriber with its parameters becomes the user (RFC 3261, section 19.1.6).
Expression sipExpression(std::string_view telUri, std::string_view gateway) {
    Expression expression;
    expression.append("!^.*$!sip:");
    appendUri(expression, telUri.substr(telUri.find(':') + 1));
    expression.append('@');
    expression.append(gateway);
    expression.append(";user=phone!");
    return expression;
}

} // namespace

EnumAnswers::EnumAnswers(Parts const& parts, std::size_t most)
    : partsM(parts), tableM(parts.networks.current()), batchM(parts.plugIn, most + 1), askedM(most) {
    // Room for every number, so that none is made later.
    std::array<char, mostStoredBytes> const longest{};
    for (std::size_t i = 0; i <= most; ++i) {
        batchM.nextNumber().assign(longest.data(), longest.size());
        batchM.add({});
    }
    batchM.clear();
}

void EnumAnswers::answer(std::span<EnumQuery> queries, BAS::DateTime utc) noexcept {
    utcM = utc;
    atM = partsM.clock.at(utc);
    secondsM = static_cast<std::uint32_t>(utc.seconds() - TimeZone::secondsTo1970CM);
    failedM = false;
    batchM.clear();
    for (std::size_t i = 0; i < queries.size(); ++i)
        read(queries[i], askedM[i]);
    if (batchM.size() == 0 && !failedM)
        return;
    lookUp();
    for (std::size_t i = 0; i < queries.size(); ++i)
        if (askedM[i].lookUp != 0)
            settle(queries[i], askedM[i]);
}

// Whatever needs no look-up is answered at once.
void EnumAnswers::read(EnumQuery& query, Asked& asked) {
    query.length = 0;
    query.outcome = DnsOutcome::SILENCE;
    asked.lookUp = 0;
    asked.hasCookie = asked.isKnown = false;
    DnsQuestion& question = asked.question;
    DnsReading const reading = readDnsQuestion(query.packet, question);
    if (reading == DnsReading::SILENCE)
        return;
    if (reading == DnsReading::MALFORMED || reading == DnsReading::NOT_IMPLEMENTED) {
        question.question = {}; // what cannot be read is not repeated
        question.hasOpt = false;
        refuse(query, asked, reading == DnsReading::MALFORMED ? DnsOutcome::FORMERR : DnsOutcome::NOTIMP);
        return;
    }
    if (reading == DnsReading::BAD_VERSION)
        return refuse(query, asked, DnsOutcome::BADVERS);
    asked.isKnown = readCookie(query, asked);
    if (question.question.empty()) { // a cookie was all that was asked for
        refuse(query, asked, DnsOutcome::NODATA);
        return;
    }
    asked.name = partsM.zones.read(question.name);
    if (question.classCode != dnsInternetCM || question.isTransfer() || asked.name.kind == EnumName::OUTSIDE)
        return refuse(query, asked, DnsOutcome::REFUSED);
    if (query.isLimited && !query.isTcp && !asked.isKnown)
        return advise(query, asked, true);
    ask(asked);
}

// Also makes the cookie that is given back.
bool EnumAnswers::readCookie(EnumQuery const& query, Asked& asked) const {
    std::string_view const option = asked.question.cookie;
    asked.hasCookie = !option.empty();
    if (!asked.hasCookie)
        return false;
    asked.cookie = partsM.cookies.make(option, query.client, secondsM);
    return partsM.cookies.isGood(option, query.client, secondsM);
}

// The batch's first look-up is nobody's: it tells which data there are, also of names that need none.
void EnumAnswers::ask(Asked& asked) {
    asked.lookUp = batchM.size() + (batchM.size() == 0 ? 1 : 0);
    try {
        std::string_view const code = partsM.zones.accessCode();
        if (batchM.size() == 0) {
            batchM.nextNumber().assign(code.data(), code.size());
            batchM.add(atM);
        }
        std::array<char, mostStoredBytes> stored;
        std::size_t const head = std::min(code.size(), stored.size() - asked.name.count);
        std::copy_n(code.data(), head, stored.data());
        std::copy_n(asked.name.bytes.data(), asked.name.count, stored.data() + head);
        batchM.nextNumber().assign(stored.data(), head + asked.name.count);
        batchM.add(atM);
    } catch (std::exception const&) {
        failedM = true;
    }
}

void EnumAnswers::lookUp() {
    try {
        refresh();
        batchM.describe(std::nullopt);
    } catch (std::exception const&) {
        failedM = true;
    }
}

void EnumAnswers::refresh() {
    // Asked first: the table that follows is not older.
    std::uint64_t const version = partsM.networks.version();
    if (version == tableVersionM)
        return;
    tableM = partsM.networks.current();
    tableVersionM = version;
}

void EnumAnswers::settle(EnumQuery& query, Asked const& asked) {
    if (failedM || batchM.detail(0).epoch == 0) // no data are loaded: nothing is known
        return refuse(query, asked, DnsOutcome::SERVFAIL);
    if (asked.name.kind == EnumName::APEX)
        return writeApex(query, asked);
    if (asked.name.kind == EnumName::NEVER || asked.name.kind == EnumName::EMPTY)
        return writeNothing(query, asked,
                            asked.name.kind == EnumName::NEVER ? DnsOutcome::NXDOMAIN : DnsOutcome::NODATA, ttlOf({}));
    writeNumber(query, asked);
}

// Of all records any one may be given to who asks for any (RFC 8482).
void EnumAnswers::writeApex(EnumQuery& query, Asked const& asked) {
    std::uint16_t const type = asked.question.type;
    std::uint32_t const ttl = ttlOf({});
    if (type != DNS_SOA && type != DNS_NS && type != DNS_ANY)
        return writeNothing(query, asked, DnsOutcome::NODATA, ttl);
    DnsWriter writer(query.place, mostAnswerBytesCM, asked.question);
    if (type == DNS_NS)
        writer.ns(DnsWriter::ANSWER, 0, ttl, asked.name.apex->nameServer);
    else
        writer.soa(DnsWriter::ANSWER, 0, ttl, soaOf(asked, ttl));
    finish(query, asked, writer, DnsOutcome::ANSWERED);
}

void EnumAnswers::writeNumber(EnumQuery& query, Asked const& asked) {
    Detail const& detail = batchM.detail(asked.lookUp);
    std::uint32_t const ttl = ttlOf(detail.nextChange);
    bool const isShort = asked.name.count < partsM.zones.settings().leastDigits;
    if (!isShort && !detail.found() && !detail.nextChange.isValid() && !detail.hasLonger)
        return writeNothing(query, asked, DnsOutcome::NXDOMAIN, ttl);
    if (isShort || !detail.found() || (asked.question.type != DNS_NAPTR && asked.question.type != DNS_ANY))
        return writeNothing(query, asked, DnsOutcome::NODATA, ttl);
    DnsWriter writer(query.place, mostAnswerBytesCM, asked.question);
    if (!writeRecords(writer, asked, detail, ttl))
        return refuse(query, asked, DnsOutcome::SERVFAIL);
    finish(query, asked, writer, DnsOutcome::ANSWERED);
}

// False when it would be longer than a NAPTR record can say.
bool EnumAnswers::writeRecords(DnsWriter& writer, Asked const& asked, Detail const& detail, std::uint32_t ttl) {
    UriTemplate::Uri uri;
    if (!uriOf(asked, detail, uri) || !uri.fits())
        return false;
    Expression const tel = telExpression(uri.view());
    writer.naptr(DnsWriter::ANSWER, 0, ttl, {orderCM, telPreference, "u", "E2U+pstn:tel", tel.view()});
    std::string const& gateway = asked.name.apex->gateway;
    if (gateway.empty())
        return tel.fits();
    Expression const sip = sipExpression(uri.view(), gateway);
    writer.naptr(DnsWriter::ANSWER, 0, ttl, {orderCM, sipPreference, "u", "E2U+pstn:sip", sip.view()});
    return tel.fits() && sip.fits();
}

// Where the data do not say whether the number has left its range, its network's routing data are right all the same.
bool EnumAnswers::uriOf(Asked const& asked, Detail const& detail, UriTemplate::Uri& uri) {
    EnumApexSettings const& apex = *asked.name.apex;
    std::string_view const id = detail.record.networkIdM.view();
    Network const* network = tableM != nullptr ? tableM->find(id) : nullptr;
    if (network == nullptr) {
        unknownM.id = id;
        network = &unknownM;
    }
    std::string_view const digits = asked.name.digits();
    if (detail.ported() == false)
        return apex.notPorted.write(digits, *network, uri);
    return apex.ported.write(digits, *network, uri) || apex.noRouting.write(digits, *network, uri);
}

void EnumAnswers::writeNothing(EnumQuery& query, Asked const& asked, DnsOutcome outcome, std::uint32_t ttl) const {
    DnsWriter writer(query.place, mostAnswerBytesCM, asked.question);
    writer.soa(DnsWriter::AUTHORITY, asked.name.apexAt, ttl, soaOf(asked, ttl));
    finish(query, asked, writer, outcome);
}

// An address may be forged, and the answer go to somebody who has asked for nothing.
void EnumAnswers::finish(EnumQuery& query, Asked const& asked, DnsWriter& writer, DnsOutcome outcome) const {
    query.length = writer.end({rcodeOf(outcome), true, false, cookieOf(asked)});
    query.outcome = outcome;
    if (query.isTcp && query.length != 0)
        return;
    std::size_t const taken =
        std::min<std::size_t>(asked.question.hasOpt ? asked.question.udpBytes : leastUdpBytesCM, mostAnswerBytesCM);
    bool const isTooMuch = !query.isTrusted && !asked.isKnown && query.length > query.packet.size() * 3 / 2;
    if (query.length == 0 || query.length > taken || isTooMuch)
        advise(query, asked, isTooMuch && query.length != 0 && query.length <= taken);
}

void EnumAnswers::refuse(EnumQuery& query, Asked const& asked, DnsOutcome outcome) const {
    DnsWriter writer(query.place, mostAnswerBytesCM, asked.question);
    query.length = writer.end({rcodeOf(outcome), false, false, cookieOf(asked)});
    query.outcome = outcome;
}

// To ask by TCP; or with the cookie that goes with this, where who asks knows what it is for and it would help.
void EnumAnswers::advise(EnumQuery& query, Asked const& asked, bool mayBeKnown) const {
    if (mayBeKnown && asked.hasCookie)
        return refuse(query, asked, DnsOutcome::BADCOOKIE);
    DnsWriter writer(query.place, mostAnswerBytesCM, asked.question);
    query.length = writer.end({DnsRcode::NOERROR, true, true, cookieOf(asked)});
    query.outcome = DnsOutcome::TRUNCATED;
}

// The serial tells which data there are. Nothing is transferred, so it need not grow over restarts.
DnsSoa EnumAnswers::soaOf(Asked const& asked, std::uint32_t ttl) const {
    return {asked.name.apex->nameServer,
            asked.name.apex->contact,
            static_cast<std::uint32_t>(batchM.detail(0).epoch),
            refreshSeconds,
            retrySeconds,
            expireSeconds,
            ttl};
}

// By UTC, for the data's clock may be put forward or back on the way.
std::uint32_t EnumAnswers::ttlOf(BAS::DateTime nextChange) const {
    std::uint64_t ttl = partsM.zones.settings().ttl;
    constexpr std::uint64_t mostShift = 172'800; // of any clock, many times over
    if (nextChange.isValid() && nextChange.seconds() < atM.seconds() + ttl + mostShift) {
        std::uint64_t const at = partsM.clock.toUtc(nextChange).seconds();
        ttl = std::clamp<std::uint64_t>(at - std::min(at, utcM.seconds()), 1, ttl);
    }
    return static_cast<std::uint32_t>(ttl);
}

std::string_view EnumAnswers::cookieOf(Asked const& asked) const {
    return asked.hasCookie ? std::string_view(asked.cookie.data(), asked.cookie.size()) : std::string_view();
}

} // namespace nphost
