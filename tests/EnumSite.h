// What tests and the fuzz target of ENUM share: the real module with a few records, and what answers around it.
#pragma once

#include "host/cli/Sections.h"
#include "host/dns/EnumAnswers.h"
#include "host/dns/ZoneText.h"
#include "host/fields/DataClock.h"
#include "host/module/Host.h"
#include "host/service/Networks.h"
#include "tests/TemporaryFolder.h"

#include <array>
#include <string>
#include <utility>
#include <vector>

inline std::string dnsBytes(unsigned value) {
    return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

// A question's packet, with an OPT record of the options when `udpBytes` is not 0.
inline std::string dnsPacket(std::string_view name, unsigned type, unsigned udpBytes = 0, std::string_view options = {},
                             unsigned flags = 0x0100) {
    std::string packet = dnsBytes(0x1234) + dnsBytes(flags) + dnsBytes(1) + dnsBytes(0) + dnsBytes(0);
    packet += dnsBytes(udpBytes != 0 ? 1 : 0) + nphost::dnsNameOf(name) + dnsBytes(type) + dnsBytes(1);
    if (udpBytes != 0)
        packet += std::string(1, '\0') + dnsBytes(nphost::DNS_OPT) + dnsBytes(udpBytes) + std::string(4, '\0') +
                  dnsBytes(static_cast<unsigned>(options.size())) + std::string(options);
    return packet;
}

inline std::string dnsNameOfNumber(std::string_view digits, std::string_view apex = "e164.example.") {
    std::string name;
    for (auto digit = digits.rbegin(); digit != digits.rend(); ++digit)
        name.append(1, *digit).append(".");
    return name.append(apex);
}

class EnumSite {
  public:
    static constexpr std::size_t mostCM = 64;

    // The data, what stands in [enum] and below it, and the method by which numbers are looked up.
    explicit EnumSite(std::string const& data = dataCM, std::string const& section = sectionCM, int method = 0)
        : configurationFileM(written(data, section, method)) {
        hostM.start();
    }

    // Now, UTC.
    void at(char const* utc) { utcM = BAS::DateTime(utc); }

    struct Answer {
        std::string bytes; // empty: none
        nphost::DnsOutcome outcome;

        std::string text() const { return bytes.empty() ? "" : nphost::zoneText(bytes).value_or("wrong"); }
    };

    // As it came over TCP, or as `query` says it came.
    Answer ask(std::string_view packet) {
        nphost::EnumQuery query;
        query.isTcp = true;
        return ask(packet, query);
    }
    Answer ask(std::string_view packet, nphost::EnumQuery query) {
        query.packet = packet;
        query.place = places[0].data();
        answersM.answer({&query, 1}, utcM);
        return {std::string(query.place, query.length), query.outcome};
    }
    // All at once, not more than mostCM.
    void askAll(std::span<nphost::EnumQuery> queries) { answersM.answer(queries, utcM); }

    nphost::LoadedPlugIn& plugIn() { return hostM.plugIn(); }
    nphost::DnsCookies const& cookies() const { return cookiesM; }
    nphost::Networks& networks() { return networksM; }
    TemporaryFolder& folder() { return folderM; }

    static constexpr char const* dataCM = "+447700900 20180101000000 ALPHA\n"
                                          "+447700900123 20210301020000 BRAVO\n"
                                          "+447700900123 20240915020000 CHARLIE\n"
                                          "+447700900124 20310301020000 CHARLIE\n"
                                          "+447700900125 20210301020000 DELTA\n"
                                          "+33612345678 20200101000000 BRAVO\n"
                                          "+4912 20310301020000 ALPHA\n"
                                          "000447700900 20180101000000 ALPHA\n"; // no number
    static constexpr char const* sectionCM = "[enum]\nttl = 300\n[[enum.apex]]\nname = \"e164.example.\"\n"
                                             "[[enum.apex]]\nname = \"Sip.of.E164.Example\"\n"
                                             "gateway = \"gw.example.net:5060\"\nnameServer = \"ns.example.net\"\n"
                                             "contact = \"dns.example.net.\"\nnotPorted = \"tel:{number}\"\n"
                                             "noRouting = \"tel:{number};npdi;x-net={network}\"\n";
    static constexpr char const* networksCM = "[ALPHA]\nroutingNumber = \"+447990001\"\n"
                                              "[BRAVO]\nroutingNumber = \"0A17\"\nroutingContext = \"+44\"\n"
                                              "parameters = \";cic=+1234\"\n"
                                              "[CHARLIE]\nserviceProvider = \"no routing\"\n";

    std::array<std::array<char, nphost::EnumAnswers::mostAnswerBytesCM>, mostCM> places;

  private:
    std::string written(std::string const& data, std::string const& section, int method) {
        folderM.write("data.dat", data);
        folderM.write("networks.toml", networksCM);
        return folderM.write("nphost.toml", "[DAT_NumberPortability]\nFileName = \"data.dat\"\nCountryCode = \"44\"\n"
                                            "NationalAccessCode = \"0\"\nSearchMethod = " +
                                                std::to_string(method) +
                                                "\n[host]\ndataZone = \"Europe/London\"\n"
                                                "networks = \"networks.toml\"\n" +
                                                section);
    }

    TemporaryFolder folderM{"np-enum"};
    std::string const configurationFileM;
    nphost::Host hostM{nphost::readConfiguration(configurationFileM, nphost::sectionsCM),
                       nphost::CommonOptions{configurationFileM}};
    nphost::Networks networksM{hostM.configuration().of<nphost::NetworkTable::Settings>().file};
    nphost::DataClock clockM{hostM.configuration()};
    nphost::EnumZones zonesM{hostM.configuration().of<nphost::EnumSettings>(), hostM.configuration()};
    nphost::DnsCookies cookiesM{nphost::DnsCookies::Secret{1, 2, 3}};
    nphost::EnumAnswers answersM{{hostM.plugIn(), networksM, clockM, zonesM, cookiesM}, mostCM};
    BAS::DateTime utcM{"20240615110000"};
};
