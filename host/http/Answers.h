// nphost::AnswerWriter: what the HTTP front answers about numbers, as JSON or as a line of text.
//
// Purpose: look-ups by the hundred thousand are written piece by piece; what repeats (networks, the state of the data)
// is written once and kept.
// Units: instants are of the data's clock, and written with its zone's offset (RFC 3339); numbers in stored form, and
// as E.164 where they begin with the international access code.
// Ownership: borrows the parts; owns what it keeps.
// Threads: one. Errors: std::bad_alloc. Complexity: linear in what is written.
#pragma once

#include "framework/BAS/SimpleString.h"
#include "host/fields/DataClock.h"
#include "host/fields/NetworkTable.h"
#include "host/service/Networks.h"
#include "host/service/Service.h"

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

namespace nphost {

struct FrontParts;

class AnswerWriter {
  public:
    explicit AnswerWriter(FrontParts const& parts);

    // Before answers are written: looks whether table or data are others than they were.
    void begin();
    // begin's: changes with the data, and with the table of networks.
    std::string const& version() const { return versionM; }
    // begin's: which data were live then.
    std::uint64_t epoch() const { return epochM; }
    std::string const& accessCode() const { return accessCodeM; }

    // `id` is JSON, and goes with the answer if it is not empty.
    void json(std::string& out, NumberAnswer const& answer, std::string_view id = {});
    // "NUMBER<TAB>INSTANT<TAB>NETWORK", without an end of the line; the network is "-" where nothing is found.
    void text(std::string& out, NumberAnswer const& answer);
    // Quoted as CSV needs it.
    void csv(std::string& out, NumberAnswer const& answer);
    static constexpr std::string_view csvHeadCM = "number,stored,at,found,network,validFrom,validUntil,ported\r\n";

    void history(std::string& out, Explained const& explained);
    void explanation(std::string& out, Explained const& explained);
    void networks(std::string& out);

    // "+447700900123", or the stored form where it does not begin with the access code.
    void number(std::string& out, std::string_view stored) const;
    // Between quotation marks, or null when there is none.
    void instant(std::string& out, BAS::DateTime at) const;
    std::string const& network(std::string_view id); // an object
    std::string const& network(BAS::SimpleString const& id) {
        if (!id.isShort())
            return network(id.view());
        std::uint64_t const text = id.shortText();
        Recent& recent = recentM[(text * 0x9e3779b97f4a7c15) >> (64 - recentBitsCM)];
        if (recent.object == nullptr || recent.text != text) {
            std::string const& object = network(id.view()); // first: it may forget all of them
            recent = {text, &object};
        }
        return *recent.object;
    }

  private:
    struct Recent {
        std::uint64_t text = 0;
        std::string const* object = nullptr;
    };
    static constexpr unsigned int recentBitsCM = 8;

    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
    };
    static constexpr std::size_t mostKeptCM = 4096;

    class Line;

    void forgetNetworks();
    std::string const& data(std::uint64_t epoch);
    std::size_t accessCodeOf(std::string_view stored) const; // its length, where the number begins with it; else 0
    void addInstant(Line& line, BAS::DateTime at) const;
    void addAsked(Line& line, BAS::DateTime at);
    static void addLong(std::string& out, Line& line, std::string_view text);
    void addFound(std::string& out, Line& line, NumberAnswer const& answer);
    std::string const& rangeNetwork(BAS::SimpleString const& id); // as JSON
    void head(std::string& out, Explained const& explained) const;
    void prefixes(std::string& out, Explained const& explained);
    void choice(std::string& out, Explained const& explained, unsigned int method);

    FrontParts const& partsM;
    std::string accessCodeM;
    std::shared_ptr<NetworkTable const> tableM;
    std::uint64_t epochM = 0;
    std::string versionM;
    std::uint64_t dataOfM = 0;
    std::string dataM; // that epoch, as "data":{...}; empty: none
    std::unordered_map<std::string, std::string, Hash, std::equal_to<>> networksM; // they stay where they are
    std::array<Recent, std::size_t(1) << recentBitsCM> recentM{};                  // of those, by a short text
    BAS::SimpleString rangeOfM;
    std::string rangeM; // that network, as JSON
    BAS::DateTime askedM;
    std::string askedTextM; // that instant, as JSON; empty: none
};

} // namespace nphost
