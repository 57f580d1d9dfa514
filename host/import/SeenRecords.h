// nphost::SeenRecords: which numbers have had a record at which instants, with which network.
//
// Purpose: finds the records that a feed has twice.
// Units and ranges: up to 2^25 networks. A number is a text; up to 17 digits and pluses are kept in one word, longer or
// other ones as texts.
// Ownership: owns what it keeps: about 20 to 40 bytes a record, and the text of long numbers besides.
// Threads: one at a time.
// Errors: std::length_error for more networks; std::bad_alloc.
// Complexity: a hash look-up a record.
#pragma once

#include "framework/BAS/DateTime.h"

#include <absl/container/flat_hash_set.h>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace nphost {

class SeenRecords {
  public:
    // The network of the record that the number has at the instant already; nothing, and the record is kept, when it
    // has none.
    std::optional<std::uint32_t> insert(std::string_view number, BAS::DateTime at, std::uint32_t network);

  private:
    static constexpr unsigned networkBitsCM = 25;

    struct Packed {
        std::uint64_t number;
        std::uint64_t atAndNetwork; // seconds above, network in the lowest networkBitsCM

        std::uint64_t at() const { return atAndNetwork >> networkBitsCM; }
        friend bool operator==(Packed const& one, Packed const& other) {
            return one.number == other.number && one.at() == other.at();
        }
        template <class State>
        friend State AbslHashValue(State state, Packed const& packed) {
            return State::combine(std::move(state), packed.number, packed.at());
        }
    };

    static std::uint64_t packed(std::string_view number);

    absl::flat_hash_set<Packed> packedM;
    std::map<std::pair<std::string, std::uint64_t>, std::uint32_t, std::less<>> othersM;
};

} // namespace nphost
