// ENUM without a transport: what is answered, how messages are read and written, held against libldns and a naive model
// of the data. What becomes of malformed messages stands in dns/malformed.txt.
#include "host/base/HostError.h"
#include "tests/EnumSite.h"
#include "tests/SeededRandom.h"

#include <atomic>
#include <cstdlib>
#include <gtest/gtest.h>
#include <ldns/ldns.h>
#include <map>
#include <new>
#include <set>

namespace {

std::atomic<std::size_t> allocations{0};

} // namespace

// Counts what is allocated, the module's too.
[[gnu::noinline]] void* operator new(std::size_t size) {
    ++allocations;
    if (void* const place = std::malloc(size == 0 ? 1 : size))
        return place;
    throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
    ++allocations;
    return std::malloc(size == 0 ? 1 : size);
}
[[gnu::noinline]] void operator delete(void* place) noexcept {
    std::free(place);
}
[[gnu::noinline]] void operator delete(void* place, std::size_t) noexcept {
    std::free(place);
}

namespace {

using nphost::DnsOutcome;
using nphost::EnumQuery;

char const* nameOf(DnsOutcome outcome) {
    constexpr std::array<char const*, 11> names = {"ANSWERED",  "NODATA",   "NXDOMAIN", "REFUSED",
                                                   "FORMERR",   "NOTIMP",   "BADVERS",  "BADCOOKIE",
                                                   "TRUNCATED", "SERVFAIL", "SILENCE"};
    return names[static_cast<std::size_t>(outcome)];
}

// The message as the library reads it; null when it refuses.
struct LdnsDeleter {
    void operator()(ldns_pkt* packet) const { ldns_pkt_free(packet); }
};
using LdnsPacket = std::unique_ptr<ldns_pkt, LdnsDeleter>;
LdnsPacket ldnsRead(std::string_view bytes) {
    ldns_pkt* packet = nullptr;
    auto const* const data = reinterpret_cast<std::uint8_t const*>(bytes.data());
    return LdnsPacket(ldns_wire2pkt(&packet, data, bytes.size()) == LDNS_STATUS_OK ? packet : nullptr);
}

// A question as the library writes it.
std::string ldnsQuestion(std::string const& name, unsigned type, unsigned udpBytes, unsigned identifier) {
    LdnsPacket const packet(ldns_pkt_query_new(ldns_dname_new_frm_str(name.c_str()), static_cast<ldns_rr_type>(type),
                                               LDNS_RR_CLASS_IN, LDNS_RD));
    ldns_pkt_set_id(packet.get(), static_cast<std::uint16_t>(identifier));
    if (udpBytes != 0) {
        ldns_pkt_set_edns_udp_size(packet.get(), static_cast<std::uint16_t>(udpBytes));
        ldns_pkt_set_edns_do(packet.get(), identifier % 2 == 0);
    }
    std::uint8_t* bytes = nullptr;
    std::size_t size = 0;
    ldns_pkt2wire(&bytes, packet.get(), &size);
    std::unique_ptr<std::uint8_t, void (*)(void*)> const owner(bytes, std::free);
    return {reinterpret_cast<char const*>(bytes), size};
}

// The records as the library writes them, in the form of zoneText.
std::string ldnsText(ldns_pkt const* packet) {
    std::string text;
    for (ldns_rr_list const* const list : {ldns_pkt_answer(packet), ldns_pkt_authority(packet)})
        for (std::size_t i = 0; i < ldns_rr_list_rr_count(list); ++i) {
            char* const line = ldns_rr2str(ldns_rr_list_rr(list, i));
            std::string record = line;
            std::free(line);
            for (char& c : record)
                if (c == '\t')
                    c = ' ';
            // It puts a blank between the records' fields and a second one before some texts.
            std::string plain;
            for (char const c : record)
                if (c != ' ' || !plain.ends_with(' '))
                    plain += c;
            while (plain.ends_with('\n') || plain.ends_with(' '))
                plain.pop_back();
            text += plain + '\n';
        }
    return text;
}

std::string recordsOf(std::string const& zoneText) {
    std::string records = zoneText.substr(std::min(zoneText.find('\n'), zoneText.size() - 1) + 1);
    for (char& c : records)
        c = c == '\t' ? ' ' : c;
    return records;
}

} // namespace

TEST(EnumTest, AnswersByTheData) {
    struct Case {
        char const* what;
        char const* utc;
        std::string name;
        unsigned type;
        std::string text; // of the answer; records without their owner where that is the question's name
    };
    std::string const soa = "e164.example.\t300\tIN\tSOA\te164.example. nobody.invalid. 1 3600 600 86400 300\n";
    auto const soaFor = [](std::string const& ttl) {
        return "e164.example.\t" + ttl + "\tIN\tSOA\te164.example. nobody.invalid. 1 3600 600 86400 " + ttl + "\n";
    };
    auto const tel = [](std::string const& ttl, std::string const& uri) {
        return "@\t" + ttl + "\tIN\tNAPTR\t100 10 \"u\" \"E2U+pstn:tel\" \"!^.*$!tel:" + uri + "!\" .\n";
    };
    auto const sip = [](std::string const& ttl, std::string const& uri) {
        return "@\t" + ttl + "\tIN\tNAPTR\t100 20 \"u\" \"E2U+pstn:sip\" \"!^.*$!sip:" + uri + "!\" .\n";
    };
    constexpr char const* summer = "20240615110000";
    constexpr char const* sipApex = "sip.of.e164.example";
    std::string const sipSoa =
        "sip.of.e164.example.\t300\tIN\tSOA\tns.example.net. dns.example.net. 1 3600 600 86400 300\n";
    std::string const ported = "+447700900123;npdi;rn=0A17;rn-context=+44;cic=+1234";
    std::vector<Case> const cases = {
        {"ported", summer, dnsNameOfNumber("447700900123"), 35, "NOERROR\n" + tel("300", ported)},
        {"ported, to somebody who writes as he likes", summer, "3.2.1.0.0.9.0.0.7.7.4.4.E164.eXample", 35,
         "NOERROR\n" + tel("300", ported)},
        {"any", summer, dnsNameOfNumber("447700900123"), 255, "NOERROR\n" + tel("300", ported)},
        {"another type", summer, dnsNameOfNumber("447700900123"), 1, "NOERROR\n" + soa},
        {"not ported", summer, dnsNameOfNumber("447700900999"), 35, "NOERROR\n" + tel("300", "+447700900999;npdi")},
        {"not ported, found by its beginning, longer than any", summer, dnsNameOfNumber("447700900999123"), 35,
         "NOERROR\n" + tel("300", "+447700900999123;npdi")},
        {"ported to a network that the table lacks", summer, dnsNameOfNumber("447700900125"), 35,
         "NOERROR\n" + tel("300", "+447700900125;npdi")},
        {"of no range: by the network's data all the same", summer, dnsNameOfNumber("33612345678"), 35,
         "NOERROR\n" + tel("300", "+33612345678;npdi;rn=0A17;rn-context=+44;cic=+1234")},
        // London's clocks are an hour ahead.
        {"two seconds before a change", "20240915005958", dnsNameOfNumber("447700900123"), 35,
         "NOERROR\n" + tel("2", ported)},
        {"one second before", "20240915005959", dnsNameOfNumber("447700900123"), 35, "NOERROR\n" + tel("1", ported)},
        {"at the change, to a network without routing", "20240915010000", dnsNameOfNumber("447700900123"), 35,
         "NOERROR\n" + tel("300", "+447700900123;npdi")},
        {"six minutes before", "20240915005400", dnsNameOfNumber("447700900123"), 35, "NOERROR\n" + tel("300", ported)},
        {"other types end with it, too", "20240915005958", dnsNameOfNumber("447700900123"), 16,
         "NOERROR\n" + soaFor("2")},

        {"two addresses", summer, dnsNameOfNumber("447700900123", sipApex), 35,
         "NOERROR\n" + tel("300", ported) + sip("300", ported + "@gw.example.net:5060;user=phone")},
        {"two, not ported", summer, dnsNameOfNumber("447700900999", sipApex), 35,
         "NOERROR\n" + tel("300", "+447700900999") + sip("300", "+447700900999@gw.example.net:5060;user=phone")},
        {"two, without routing", summer, dnsNameOfNumber("447700900125", sipApex), 35,
         "NOERROR\n" + tel("300", "+447700900125;npdi;x-net=DELTA") +
             sip("300", "+447700900125;npdi;x-net=DELTA@gw.example.net:5060;user=phone")},
        {"an apex below another", summer, std::string("x.") + sipApex, 35, "NXDOMAIN\n" + sipSoa},

        {"the SOA", summer, "E164.Example", 6,
         "NOERROR\n@\t300\tIN\tSOA\te164.example. nobody.invalid. 1 3600 600 86400 300\n"},
        {"the NS", summer, sipApex, 2, "NOERROR\n@\t300\tIN\tNS\tns.example.net.\n"},
        {"any of an apex", summer, "e164.example", 255,
         "NOERROR\n@\t300\tIN\tSOA\te164.example. nobody.invalid. 1 3600 600 86400 300\n"},
        {"NAPTR of an apex", summer, "e164.example", 35, "NOERROR\n" + soa},
        {"a transfer of an apex", summer, "e164.example", 252, "REFUSED\n"},
        {"a transfer of a number", summer, dnsNameOfNumber("447700900123"), 251, "REFUSED\n"},
        {"above an apex", summer, "example", 6, "REFUSED\n"},
        {"beside an apex", summer, "1.e164.example.net", 35, "REFUSED\n"},
        {"an apex's end", summer, "xe164.example", 35, "REFUSED\n"},

        {"a country", summer, "4.4.e164.example", 35, "NOERROR\n" + soa},
        {"a country that nobody has", summer, "1.e164.example", 35, "NOERROR\n" + soa},
        {"six digits", summer, dnsNameOfNumber("199999"), 35, "NOERROR\n" + soa},
        {"seven digits that nothing begins with", summer, dnsNameOfNumber("1999999"), 35, "NXDOMAIN\n" + soa},
        {"a number's beginning", summer, dnsNameOfNumber("3361234567"), 35, "NOERROR\n" + soa},
        {"beyond a number that is found: what begins with it is its, too", summer, dnsNameOfNumber("336123456789"), 35,
         "NOERROR\n" + tel("300", "+336123456789;npdi")},
        {"beside a number", summer, dnsNameOfNumber("3361234568"), 35, "NXDOMAIN\n" + soa},
        {"a number that is still to come", summer, dnsNameOfNumber("4912345678"), 35, "NOERROR\n" + soa},
        {"three seconds before it comes", "20310301015957", dnsNameOfNumber("4912345678"), 35,
         "NOERROR\n" + soaFor("3")},
        {"fifteen digits", summer, dnsNameOfNumber("447700900123456"), 35,
         "NOERROR\n" + tel("300", "+447700900123456;npdi")},
        {"sixteen digits", summer, dnsNameOfNumber("4477009001234567"), 35, "NXDOMAIN\n" + soa},
        {"no country code begins so", summer, dnsNameOfNumber("0447700900123"), 35, "NXDOMAIN\n" + soa},
        {"a label of two digits", summer, "23.1.0.0.9.0.0.7.7.4.4.e164.example", 35, "NXDOMAIN\n" + soa},
        {"a label that is no digit", summer, "a.4.4.e164.example", 35, "NXDOMAIN\n" + soa},
        {"below a label that is no digit", summer, "4.4.a.e164.example", 35, "NXDOMAIN\n" + soa},
        {"above an apex that is below an apex", summer, "of.e164.example", 35, "NOERROR\n" + soa},
        {"an asterisk", summer, "*.e164.example", 35, "NXDOMAIN\n" + soa},
    };
    EnumSite site;
    for (Case const& test : cases) {
        SCOPED_TRACE(test.what);
        site.at(test.utc);
        std::string packet = dnsPacket("x", test.type);
        try {
            packet = dnsPacket(test.name, test.type);
        } catch (nphost::HostError const&) { // an asterisk is no part of names that are configured
            packet = dnsPacket("x.e164.example", test.type);
            packet[13] = '*';
        }
        EnumSite::Answer const answer = site.ask(packet);
        std::string const shown = test.name.ends_with('.') ? test.name : test.name + '.';
        std::string expected = test.text;
        for (std::size_t at = 0; (at = expected.find("\n@\t", at)) != std::string::npos; at += shown.size())
            expected.replace(at + 1, 1, shown);
        // The names of an apex are repeated as the question has them.
        std::string text = answer.text();
        EXPECT_TRUE(text.starts_with("; " + shown + " ")) << text;
        text.erase(0, text.find(": ") + 2);
        EXPECT_EQ(text, expected);
        EXPECT_EQ(answer.bytes.substr(12, packet.size() - 12), packet.substr(12)) << "the question as it came";
        EXPECT_EQ(answer.bytes.substr(0, 2), packet.substr(0, 2));
        bool const isOurs = answer.outcome != DnsOutcome::REFUSED;
        EXPECT_EQ(static_cast<unsigned char>(answer.bytes[2]), isOurs ? 0x85 : 0x81) << "authority";
        LdnsPacket const read = ldnsRead(answer.bytes);
        ASSERT_TRUE(read);
        EXPECT_EQ(ldnsText(read.get()), recordsOf(answer.text()));
    }
}

TEST(EnumTest, RefusesWhatCanBeReadInTwoWays) {
    struct Case {
        std::string outcome;
        std::string what;
        std::string bytes;
    };
    auto const bytesOf = [](std::string const& text) {
        std::map<std::string, char const*> const known = {{"@q", "123401000001000000000000"},
                                                          {"@qo", "123401000001000000000001"},
                                                          {"@apex", "0465313634076578616d706c6500"},
                                                          {"@naptr", "00230001"},
                                                          {"@opt", "00002904d0000000000000"}};
        std::string hex;
        std::istringstream words(text);
        for (std::string word; words >> word;) {
            std::size_t times = 1;
            if (word.front() == '{') {
                times = std::stoul(word.substr(1));
                word = word.substr(word.find('*') + 1);
                word.pop_back();
            }
            auto const found = known.find(word);
            std::string const digits = found == known.end() ? word : found->second;
            while (times-- > 0)
                hex += digits;
        }
        std::string bytes;
        for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
            bytes += static_cast<char>(std::stoul(hex.substr(i, 2), nullptr, 16));
        return bytes;
    };
    std::vector<Case> cases;
    std::ifstream table(NP_SOURCE_FOLDER "/tests/dns/malformed.txt");
    for (std::string line; std::getline(table, line);)
        if (!line.empty() && !line.starts_with('#'))
            cases.push_back({line.substr(0, line.find(' ')), line.substr(11, 41), bytesOf(line.substr(52))});
    ASSERT_GT(cases.size(), 70U);
    EnumSite site;
    for (Case const& test : cases) {
        SCOPED_TRACE(test.what);
        EnumSite::Answer const answer = site.ask(test.bytes);
        EXPECT_EQ(nameOf(answer.outcome), test.outcome);
        EXPECT_EQ(answer.bytes.empty(), test.outcome == "SILENCE");
        bool const isBare = test.outcome == "FORMERR" || test.outcome == "NOTIMP";
        if (isBare) {
            EXPECT_EQ(answer.bytes.size(), 12U);
        }
        EXPECT_TRUE(answer.bytes.empty() || ldnsRead(answer.bytes)) << answer.text();
        for (std::size_t length = 0;
             length < test.bytes.size() && test.outcome != "SILENCE" && test.outcome != "FORMERR"; ++length) {
            DnsOutcome const part = site.ask(std::string_view(test.bytes).substr(0, length)).outcome;
            EXPECT_TRUE(part == DnsOutcome::FORMERR || part == DnsOutcome::NOTIMP || part == DnsOutcome::SILENCE ||
                        // Nothing behind it is read.
                        (test.what.starts_with("a transfer of changes") && part == DnsOutcome::REFUSED))
                << nameOf(part) << " of " << length << " bytes";
        }
    }
}

TEST(EnumTest, LimitsWhatGoesWhereNobodyMayHaveAsked) {
    // Two records that are as long as they may be have more than 512 bytes.
    std::string const filler(118, 'x');
    EnumSite site(EnumSite::dataCM,
                  "[enum]\n[[enum.apex]]\nname = \"e164.example\"\n[[enum.apex]]\nname = \"big.example\"\n"
                  "gateway = \"" +
                      filler.substr(18) + "\"\nnotPorted = \"tel:{number};" + filler + "\"\n");
    nphost::DnsClient client;
    client.address = {192, 0, 2, 1};
    client.bytes = 4;
    nphost::DnsClient other = client;
    other.address[3] = 2;
    std::string const cookie = "clientck";
    constexpr std::uint32_t now = 1718449200; // 2024-06-15T11:00:00Z
    auto const whole = [&](nphost::DnsClient const& whose, std::uint32_t time) {
        auto const made = site.cookies().make(cookie, whose, time);
        return std::string(made.data(), made.size());
    };
    auto const option = [](std::string const& content) {
        return dnsBytes(10) + dnsBytes(static_cast<unsigned>(content.size())) + content;
    };
    std::string const number = dnsNameOfNumber("447700900999");
    std::string const big = dnsNameOfNumber("447700900999", "big.example");
    struct Case {
        char const* what;
        std::string packet;
        bool isTcp, isTrusted, isLimited;
        char const* outcome;
    };
    for (Case const& test : {
             Case{"nobody knows who", dnsPacket(number, 35), false, false, false, "TRUNCATED"},
             {"by TCP", dnsPacket(number, 35), true, false, false, "ANSWERED"},
             {"trusted", dnsPacket(number, 35), false, true, false, "ANSWERED"},
             {"limited", dnsPacket(number, 35), false, false, true, "TRUNCATED"},
             {"nothing there, and nobody knows who", dnsPacket("1.e164.example", 35), false, false, false, "TRUNCATED"},
             {"refused", dnsPacket("example", 35), false, false, true, "REFUSED"},
             {"EDNS alone", dnsPacket(number, 35, 4096), false, false, false, "TRUNCATED"},
             {"half a cookie", dnsPacket(number, 35, 4096, option(cookie)), false, false, false, "BADCOOKIE"},
             {"half a cookie, limited", dnsPacket(number, 35, 4096, option(cookie)), false, false, true, "BADCOOKIE"},
             {"half a cookie by TCP", dnsPacket(number, 35, 4096, option(cookie)), true, false, false, "ANSWERED"},
             {"a good cookie", dnsPacket(number, 35, 4096, option(whole(client, now))), false, false, true, "ANSWERED"},
             {"another's cookie", dnsPacket(number, 35, 4096, option(whole(other, now))), false, false, false,
              "BADCOOKIE"},
             {"an hour old", dnsPacket(number, 35, 4096, option(whole(client, now - 3600))), false, false, false,
              "ANSWERED"},
             {"older", dnsPacket(number, 35, 4096, option(whole(client, now - 3601))), false, false, false,
              "BADCOOKIE"},
             {"of a clock that is ahead", dnsPacket(number, 35, 4096, option(whole(client, now + 300))), false, false,
              false, "ANSWERED"},
             {"of the future", dnsPacket(number, 35, 4096, option(whole(client, now + 301))), false, false, false,
              "BADCOOKIE"},
             {"one bit off", dnsPacket(number, 35, 4096, option(whole(client, now).replace(23, 1, "\x7f"))), false,
              false, false, "BADCOOKIE"},
             {"a cookie that is too long", dnsPacket(number, 35, 4096, option(whole(client, now) + "x")), false, false,
              false, "BADCOOKIE"},
             {"larger than who asks may take", dnsPacket(big, 35), false, true, false, "TRUNCATED"},
             {"larger than he takes", dnsPacket(big, 35, 511), false, true, false, "TRUNCATED"},
             {"larger, a good cookie does not help", dnsPacket(big, 35, 512, option(whole(client, now))), false, false,
              false, "TRUNCATED"},
             {"as large as he takes", dnsPacket(big, 35, 1232), false, true, false, "ANSWERED"},
             {"larger, by TCP", dnsPacket(big, 35), true, false, false, "ANSWERED"},
         }) {
        SCOPED_TRACE(test.what);
        EnumQuery query;
        query.client = client;
        query.isTcp = test.isTcp;
        query.isTrusted = test.isTrusted;
        query.isLimited = test.isLimited;
        EnumSite::Answer const answer = site.ask(test.packet, query);
        EXPECT_EQ(nameOf(answer.outcome), std::string(test.outcome));
        bool const isTruncated = (answer.bytes[2] & 2) != 0;
        EXPECT_EQ(isTruncated, answer.outcome == DnsOutcome::TRUNCATED);
        LdnsPacket const read = ldnsRead(answer.bytes);
        ASSERT_TRUE(read);
        bool const isWhole = answer.outcome == DnsOutcome::ANSWERED;
        EXPECT_TRUE(isWhole || answer.bytes.size() <= test.packet.size() * 3 / 2);
        // Who has sent half a cookie or an old one gets one with which he is known.
        if (test.packet.find(cookie) != std::string::npos) {
            std::string const given = answer.bytes.substr(answer.bytes.size() - 24);
            EXPECT_TRUE(site.cookies().isGood(given, client, now));
        }
    }
}

// What other servers give and take: RFC 9018, appendix A.
TEST(EnumTest, MakesTheCookiesThatOtherServersMake) {
    struct Case {
        nphost::DnsCookies::Secret secret;
        std::vector<unsigned char> address;
        std::string client;
        std::uint32_t time;
        std::string whole;
    };
    auto const hexOf = [](std::string_view bytes) {
        std::string hex;
        for (char const byte : bytes) {
            constexpr std::string_view digits = "0123456789abcdef";
            hex += digits[static_cast<unsigned char>(byte) >> 4];
            hex += digits[static_cast<unsigned char>(byte) & 15];
        }
        return hex;
    };
    for (Case const& test : {
             Case{{0xe5, 0xe9, 0x73, 0xe5, 0xa6, 0xb2, 0xa4, 0x3f, 0x48, 0xe7, 0xdc, 0x84, 0x9e, 0x37, 0xbf, 0xcf},
                  {198, 51, 100, 100},
                  "\x24\x64\xc4\xab\xcf\x10\xc9\x57",
                  1559731985,
                  "2464c4abcf10c957010000005cf79f111f8130c3eee29480"},
             {{0xdd, 0x3b, 0xdf, 0x93, 0x44, 0xb6, 0x78, 0xb1, 0x85, 0xa6, 0xf5, 0xcb, 0x60, 0xfc, 0xa7, 0x15},
              {0x20, 0x01, 0x0d, 0xb8, 0x02, 0x20, 0x00, 0x01, 0x59, 0xde, 0xd0, 0xf4, 0x87, 0x69, 0x82, 0xb8},
              "\x22\x68\x1a\xb9\x7d\x52\xc2\x98",
              1559741817,
              "22681ab97d52c298010000005cf7c57926556bd0934c72f8"},
         }) {
        nphost::DnsClient client;
        client.bytes = static_cast<std::uint8_t>(test.address.size());
        std::copy(test.address.begin(), test.address.end(), client.address.begin());
        auto const made = nphost::DnsCookies(test.secret).make(test.client, client, test.time);
        EXPECT_EQ(hexOf({made.data(), made.size()}), test.whole);
    }
}

// Whatever the library reads in a message that is taken for a question, this must have read, too.
TEST(EnumTest, ReadsQuestionsAsAnotherLibrary) {
    SeededRandom random;
    EnumSite site;
    unsigned taken = 0;
    for (int i = 0; i < 40000; ++i) {
        std::string name;
        for (auto labels = random() % 18; labels > 0; --labels)
            name.append(1, static_cast<char>((random() % 20 == 0 ? 'A' : '0') + random() % 10)).append(".");
        name += random() % 8 == 0 ? "example.com." : (random() % 2 == 0 ? "e164.example." : "E164.eXample.");
        unsigned const types[] = {35, 35, 35, 1, 6, 2, 255, 64000};
        std::string const options = random() % 2 == 0
                                        ? ""
                                        : dnsBytes(10) + dnsBytes(8) + "abcdefgh" +
                                              dnsBytes(static_cast<unsigned>(random() % 100)) + dnsBytes(0);
        std::string packet =
            dnsPacket(name, types[random() % 8], random() % 2 == 0 ? 0 : static_cast<unsigned>(random() % 65536),
                      options, random() % 4 == 0 ? static_cast<unsigned>(random() & 0x87ff) : 0x0100);
        if (random() % 2 == 0) {
            packet = ldnsQuestion(name, types[random() % 8], random() % 2 == 0 ? 0 : 1232,
                                  static_cast<unsigned>(random() % 65536));
            nphost::DnsQuestion whole;
            ASSERT_EQ(nphost::readDnsQuestion(packet, whole), nphost::DnsReading::QUESTION) << name;
        }
        for (auto changes = random() % 4; changes > 0; --changes) // from none on
            packet[random() % packet.size()] = static_cast<char>(random() % 4 == 0 ? random() : random() % 4);
        if (random() % 16 == 0)
            packet.resize(random() % (packet.size() + 1));
        nphost::DnsQuestion question;
        nphost::DnsReading const reading = nphost::readDnsQuestion(packet, question);
        EnumSite::Answer const answer = site.ask(packet);
        LdnsPacket const ours = answer.bytes.empty() ? nullptr : ldnsRead(answer.bytes);
        ASSERT_EQ(ours != nullptr, reading != nphost::DnsReading::SILENCE) << answer.text();
        if (ours) {
            ASSERT_EQ(ldnsText(ours.get()), recordsOf(answer.text()));
            ASSERT_TRUE(ldns_pkt_qr(ours.get()));
        }
        if (reading != nphost::DnsReading::QUESTION || question.isTransfer() || question.question.empty())
            continue;
        ++taken;
        LdnsPacket const theirs = ldnsRead(packet);
        if (!theirs) // it knows what some options must be like
            continue;
        ASSERT_EQ(ldns_rr_list_rr_count(ldns_pkt_question(theirs.get())), 1U);
        ldns_rr const* const asked = ldns_rr_list_rr(ldns_pkt_question(theirs.get()), 0);
        std::unique_ptr<char, void (*)(void*)> const shown(ldns_rdf2str(ldns_rr_owner(asked)), std::free);
        std::unique_ptr<ldns_rdf, void (*)(ldns_rdf*)> const owner(ldns_rdf_clone(ldns_rr_owner(asked)),
                                                                   ldns_rdf_deep_free);
        ASSERT_EQ(std::string(reinterpret_cast<char const*>(ldns_rdf_data(owner.get())), ldns_rdf_size(owner.get())),
                  question.name)
            << shown.get();
        ASSERT_EQ(ldns_rr_get_type(asked), question.type);
        ASSERT_EQ(ldns_rr_get_class(asked), question.classCode);
        ASSERT_EQ(ldns_pkt_edns(theirs.get()), question.hasOpt);
        ASSERT_EQ(std::max<unsigned>(ldns_pkt_edns_udp_size(theirs.get()), 512), question.udpBytes);
        ASSERT_EQ(ldns_pkt_edns_do(theirs.get()), question.wantsSignatures);
    }
    EXPECT_GT(taken, 8000U);
}

// Every name of a generated set of data: it has records if something is found for it, and does not exist if nothing
// will ever be found for it or below it. All in one batch or one by one, it is the same.
TEST(EnumTest, DeniesOnlyWhatNoRecordAnswers) {
    SeededRandom random;
    auto const digitsOf = [&](std::size_t least, std::size_t most) {
        std::string digits = "4";
        for (std::size_t left = least + random() % (most - least + 1) - 1; left > 0; --left)
            digits += static_cast<char>('1' + random() % 3);
        return digits;
    };
    for (int const method : {0, 1, 2}) {
        std::set<std::string> keys;
        std::string data;
        for (int i = 0; i < 300; ++i) {
            std::string const key = digitsOf(3, 12);
            if (!keys.insert(key).second)
                continue;
            data += "+" + key + (random() % 3 == 0 ? " 20980101000000 N" : " 20180101000000 N") + "\n";
        }
        EnumSite site(data, "[enum]\nleastDigits = 3\n[[enum.apex]]\nname = \"e164.example\"\n", method);
        std::vector<std::string> packets, singles;
        for (int i = 0; i < 3000; ++i) {
            std::string digits = digitsOf(2, 14);
            if (random() % 2 == 0) // near to what there is
                digits = keys.lower_bound(digits) == keys.end() ? digits : *keys.lower_bound(digits);
            if (random() % 3 == 0)
                digits.resize(std::max<std::size_t>(2, random() % (digits.size() + 1)));
            EnumSite::Answer const answer = site.ask(dnsPacket(dnsNameOfNumber(digits), 35));
            nphost::LookUpBatch::Record record;
            bool const isFound =
                site.plugIn().search(BAS::String("00" + digits), BAS::DateTime("20240615120000"), record);
            bool exists = isFound || digits.size() < 3;
            auto const below = keys.upper_bound(digits);
            exists = exists || (below != keys.end() && below->starts_with(digits)) ||
                     (method == 1 && keys.count(digits) != 0);
            for (std::size_t length = 1; length <= digits.size() && method != 1; ++length)
                exists = exists || keys.count(digits.substr(0, length)) != 0;
            char const* const expected = isFound && digits.size() >= 3 ? "ANSWERED" : (exists ? "NODATA" : "NXDOMAIN");
            ASSERT_EQ(nameOf(answer.outcome), std::string(expected)) << digits << " by method " << method;
            packets.push_back(dnsPacket(dnsNameOfNumber(digits), 35));
            singles.push_back(answer.bytes);
        }
        std::vector<EnumQuery> queries(EnumSite::mostCM);
        std::size_t allocated = 0;
        for (std::size_t begin = 0; begin + queries.size() <= packets.size(); begin += queries.size()) {
            for (std::size_t i = 0; i < queries.size(); ++i) {
                queries[i].packet = packets[begin + i];
                queries[i].place = site.places[i].data();
                queries[i].isTcp = true;
            }
            std::size_t const before = allocations;
            site.askAll(queries);
            if (begin > 0)
                allocated += allocations - before;
            for (std::size_t i = 0; i < queries.size(); ++i)
                ASSERT_EQ(std::string(queries[i].place, queries[i].length), singles[begin + i]);
        }
        EXPECT_EQ(allocated, 0U) << "by method " << method;
    }
}

TEST(EnumTest, TellsWhatIsWrongInItsSettings) {
    struct Case {
        char const* what;
        std::string section;
        char const* reason;
    };
    std::string const apex = "[enum]\n[[enum.apex]]\nname = \"a.\"\n";
    TemporaryFolder const folder;
    for (Case const& test : {
             Case{"an apex that is no table", "[enum]\napex = \"a.\"\n", ":5: 'apex' must be tables: [[...]]"},
             {"no name", "[enum]\n[[enum.apex]]\n", ":5: 'apex': each needs a 'name'"},
             {"an unknown key", apex + "routing = 1\n", ":7: unknown key 'routing' in [enum.apex]"},
             {"the root", "[enum]\n[[enum.apex]]\nname = \".\"\n", ":6: 'name': an apex is a domain name of"},
             {"an empty label", "[enum]\n[[enum.apex]]\nname = \"a..b\"\n", ":6: 'name': 'a..b' is not a domain name"},
             {"a long label", "[enum]\n[[enum.apex]]\nname = \"" + std::string(64, 'a') + "\"\n", ":6: 'name': '"},
             {"a name twice", apex + "[[enum.apex]]\nname = \"A\"\n", "'apex': two have the same 'name'"},
             {"no tel: URI", apex + "ported = \"sip:{number}\"\n", ":7: 'ported': a template begins with tel:{number}"},
             {"an unknown value", apex + "ported = \"tel:{number};rn={routing}\"\n",
              ":7: 'ported': there is no value {routing}"},
             {"an open brace", apex + "ported = \"tel:{number};{rn\"\n", ":7: 'ported': a brace is not closed"},
             {"an open bracket", apex + "ported = \"tel:{number}[;rn={rn}\"\n",
              ":7: 'ported': a bracket is not closed"},
             {"brackets in brackets", apex + "ported = \"tel:{number}[;a[;b]]\"\n",
              ":7: 'ported': brackets must come in pairs"},
             {"a blank", apex + "ported = \"tel:{number} ;a\"\n", ":7: 'ported': ' ' cannot stand in"},
             {"a backslash", apex + "ported = \"tel:{number};a\\\\1\"\n", ":7: 'ported': '\\' cannot stand in"},
             {"what not every network has", apex + "noRouting = \"tel:{number};rn={rn}\"\n",
              ":7: 'noRouting': what every network"},
             {"a gateway with a user", apex + "gateway = \"a@b\"\n", ":7: 'gateway': it is the host of a sip: address"},
             {"no address", "[enum]\ntrusted = [\"a/8\"]\n", ":5: 'trusted': 'a/8' is not an address"},
             {"too many bits", "[enum]\ntrusted = [\"10.0.0.0/33\"]\n",
              ":5: 'trusted': '10.0.0.0/33' is not an address"},
             {"no bits", "[enum]\ntrusted = [\"::1/\"]\n", ":5: 'trusted': '::1/' is not an address"},
             {"no time", "[enum]\nttl = 0\n", ":5: 'ttl' must be a whole number from 1 to 86400"},
         }) {
        std::string const file =
            folder.write("n.toml", "[DAT_NumberPortability]\nFileName = \"d\"\nCountryCode = \"44\"\n" + test.section);
        try {
            nphost::readConfiguration(file, nphost::sectionsCM);
            ADD_FAILURE() << test.what;
        } catch (std::exception const& error) {
            EXPECT_NE(std::string(error.what()).find(test.reason), std::string::npos)
                << test.what << ": " << error.what();
        }
    }
    nphost::DnsClient client;
    client.address = {10, 1, 2, 3};
    client.bytes = 4;
    struct Trusted {
        char const* ranges;
        bool isIn;
    };
    for (Trusted const& test : {Trusted{"\"10.0.0.0/8\"", true},
                                {"\"11.0.0.0/8\"", false},
                                {"\"10.1.2.3\"", true},
                                {"\"10.1.2.2/31\"", true},
                                {"\"10.1.2.4/31\"", false},
                                {"\"0.0.0.0/0\"", true},
                                {"\"::/0\"", false},
                                {"\"::1\", \"10.1.0.0/15\"", true}}) {
        std::string const file =
            folder.write("n.toml", std::string("[DAT_NumberPortability]\n[enum]\ntrusted = [") + test.ranges + "]\n");
        nphost::Configuration const configuration = nphost::readConfiguration(file, nphost::sectionsCM);
        EXPECT_EQ(configuration.of<nphost::EnumSettings>().trusts(client), test.isIn) << test.ranges;
    }
}

TEST(EnumTest, WritesUrisOfWhatIsKnown) {
    struct Case {
        char const* text;
        char const* uri; // null: something is missing
    };
    nphost::Network network;
    network.id = "N 1";
    network.mcc = "234";
    network.routingNumber = "+44799";
    network.serviceProvider = "a!b\\\"c;d=\xc3\xa9";
    network.parameters = ";x=1";
    for (Case const& test : {
             Case{"tel:{number};npdi;rn={rn}[;rn-context={rn-context}]{parameters}", "tel:+441;npdi;rn=+44799;x=1"},
             {"tel:{number}[;mcc={mcc}][;mnc={mnc}]", "tel:+441;mcc=234"},
             {"tel:{number}[;e212={mcc}-{mnc}];n", "tel:+441;n"}, // both or none
             {"tel:{number};mnc={mnc}", nullptr},
             {"tel:{number};spn={spn}", "tel:+441;spn=a%21b%5C%22c%3Bd%3D%C3%A9"},
             {"tel:{number};n={network};a!", "tel:+441;n=N%201;a!"},
         }) {
        nphost::UriTemplate::Uri uri;
        bool const isWritten = nphost::UriTemplate(test.text).write("441", network, uri);
        EXPECT_EQ(isWritten, test.uri != nullptr) << test.text;
        EXPECT_EQ(uri.view(), test.uri == nullptr ? "" : test.uri);
    }
    // As long as a record can have it, and one longer: never a part of it.
    std::string const delimiters = "!^.*$!!";
    std::string const begin = "tel:+447700900999;";
    for (std::size_t const more : {0U, 1U}) {
        std::string const filler(255 - delimiters.size() - begin.size() - 2 + more, 'x');
        EnumSite site(EnumSite::dataCM, "[enum]\n[[enum.apex]]\nname = \"e164.example\"\nnotPorted = \"tel:{number};" +
                                            filler + "!\"\n"); // the mark gets a backslash
        EnumSite::Answer const answer = site.ask(dnsPacket(dnsNameOfNumber("447700900999"), 35));
        EXPECT_EQ(nameOf(answer.outcome), std::string(more == 0 ? "ANSWERED" : "SERVFAIL"));
        EXPECT_EQ(answer.text().find("\\\\!!\"") != std::string::npos, more == 0) << answer.text();
    }
}

// The table of networks is another: what is answered follows. Without data nothing is known.
TEST(EnumTest, FollowsTheTableOfNetworks) {
    EnumSite site;
    std::string const packet = dnsPacket(dnsNameOfNumber("447700900123"), 35);
    EXPECT_NE(site.ask(packet).text().find("rn=0A17"), std::string::npos);
    site.folder().write("networks.toml", "[BRAVO]\nroutingNumber = \"+4477\"\n");
    ASSERT_TRUE(site.networks().reread());
    EXPECT_NE(site.ask(packet).text().find("npdi;rn=+4477!"), std::string::npos);
}
