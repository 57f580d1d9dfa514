// nphost::NetworkFields: the networks that one thread has found, as they stand in its records, and how often.
//
// Purpose: networks are few and records many. How one is written is worked out once, and found again with its count.
// Ownership: borrows the writer; owns the networks, which stay where they are until it goes.
// Threads: none inside. Errors: std::bad_alloc.
// Complexity: a comparison for a network of up to seven characters; a hash for a longer one, and where several shorter
// ones share a place.
#pragma once

#include "framework/BAS/SimpleString.h"
#include "host/enrich/EnrichSummary.h"
#include "host/records/RecordWriter.h"

#include <array>
#include <cstdint>
#include <string>
#include <unordered_map>

namespace nphost {

class NetworkFields {
  public:
    struct Network {
        std::string field;     // as RecordWriter::encode made it
        bool writable = false; // it could
        std::uint64_t numbers = 0;
    };

    explicit NetworkFields(RecordWriter const& writer) : writerM(writer) {}
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

    Network& find(std::string_view network);

    RecordWriter const& writerM;
    std::unordered_map<std::string, Network, Hash, std::equal_to<>> networksM;
    std::array<Recent, std::size_t(1) << recentBitsCM> recentM{};
};

} // namespace nphost
