// nphost::NetworkFields: the networks that one thread has found, as they stand in its records, and how often.
//
// Purpose: networks are few and records many. How one is written is worked out once, and found again with its count.
// Ownership: borrows the writer and the table of networks; owns the networks, which stay where they are until it goes.
// Threads: none inside. Errors: std::bad_alloc.
// Complexity: a comparison for a network of up to seven characters; a hash for a longer one, and where several shorter
// ones share a place.
#pragma once

#include "framework/BAS/SimpleString.h"
#include "host/enrich/EnrichPlan.h"
#include "host/enrich/EnrichSummary.h"
#include "host/fields/NetworkTable.h"
#include "host/records/RecordWriter.h"

#include <array>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace nphost {

class NetworkFields {
  public:
    static constexpr std::size_t detailsCM = 5; // of the table, in the order of Added
    struct Network {
        std::string field;                          // as RecordWriter::encode made it, as the next
        std::array<std::string, detailsCM> details; // those that are wanted; empty: the table says nothing
        bool writable = false;                      // all could be made
        std::uint64_t numbers = 0;

        std::string const& detail(Added added) const { return details[detailOf(added)]; }
    };

    // The table is null where none of its details is wanted.
    NetworkFields(RecordWriter const& writer, std::vector<Added> const& wanted, NetworkTable const* table)
        : writerM(writer), wantedM(wanted), tableM(table) {}
    NetworkFields(NetworkFields const&) = delete;
    NetworkFields& operator=(NetworkFields const&) = delete;

    Network& at(BAS::SimpleString const& network) {
        if (!network.isShort())
            return find(network.view());
        std::uint64_t const text = network.shortText();
        Recent& recent = recentM[(text * 0x9e3779b97f4a7c15) >> (64 - recentBitsCM)];
        if (recent.network != nullptr && recent.text == text)
            return *recent.network;
        Network& found = find(network.view());
        recent = {text, &found};
        return found;
    }

    void addTo(NetworkCounts& counts) const;

  private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
    };
    struct Recent {
        std::uint64_t text = 0;
        Network* network = nullptr;
    };
    static constexpr unsigned int recentBitsCM = 8;

    static std::size_t detailOf(Added added) {
        return static_cast<std::size_t>(added) - static_cast<std::size_t>(Added::NETWORK_NAME);
    }
    Network& find(std::string_view network);
    bool addDetails(Network& to, std::string_view network) const;

    RecordWriter const& writerM;
    std::vector<Added> const& wantedM;
    NetworkTable const* tableM;
    std::unordered_map<std::string, Network, Hash, std::equal_to<>> networksM;
    std::array<Recent, std::size_t(1) << recentBitsCM> recentM{};
};

} // namespace nphost
