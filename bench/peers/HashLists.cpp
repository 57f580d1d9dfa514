// Hash tables from packed digits to histories, each an object of its own; every stored length is asked, longest first.
#include "bench/peers/Peer.h"
#include "bench/peers/Records.h"

#include <absl/container/flat_hash_map.h>
#include <unordered_map>

namespace npbench {

namespace {

using AbslMap = absl::flat_hash_map<std::uint64_t, NumberPortabilityList*>;
using StdMap = std::unordered_map<std::uint64_t, NumberPortabilityList*>;

// How far ahead a batch fetches: not at all, the table's slots as the library offers it, or by hand also the histories
// and their records.
enum class Ahead { NOTHING, SLOTS, ALL };

template <class Map, Ahead ahead>
class HashLists : public PeerOf<HashLists<Map, ahead>> {
  public:
    static constexpr bool batchesCM = ahead != Ahead::NOTHING;

    char const* name() const override {
        return ahead == Ahead::NOTHING ? "std::unordered_map"
               : ahead == Ahead::SLOTS ? "absl::flat_hash_map"
                                       : "absl, all prefetched";
    }

    void fill(PortabilityData const& data, Order order) override {
        lengthsM = data.keyLengths();
        mapM.reserve(data.keys().size());
        data.visit(order, [&](Key key) {
            auto* const list = new (poolM.allocate(sizeof(NumberPortabilityList)))
                NumberPortabilityList(NumberPortabilityList::Memory::POOL); // as lean as ours; dropped with the pool
            fillList(*list, data, data.history(key));
            mapM.emplace(packed(key.text().view()), list);
        });
    }

    bool find(BAS::String const& number, BAS::DateTime at, NumberPortabilityData& out) const {
        return findFrom(PackedPrefixes(number.view(), lengthsM), at, out);
    }

    // Passes, each of which asks for the memory that the next will read.
    void findMany(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                  std::span<NumberPortabilityData> records, std::span<bool> found) const {
        std::array<std::uint64_t, Peer::batchCM> keys;
        std::array<NumberPortabilityList const*, Peer::batchCM> lists;
        for (std::size_t i = 0; i < numbers.size(); ++i) {
            keys[i] = packed(numbers[i].view());
            mapM.prefetch(keys[i]);
        }
        for (std::size_t i = 0; i < numbers.size(); ++i) {
            lists[i] = listOf(keys[i]);
            if constexpr (ahead == Ahead::ALL)
                __builtin_prefetch(lists[i]);
        }
        if constexpr (ahead == Ahead::ALL)
            for (NumberPortabilityList const* const list : lists)
                if (list != nullptr)
                    list->prefetch();
        for (std::size_t i = 0; i < numbers.size(); ++i)
            found[i] = (lists[i] != nullptr && lists[i]->search(instants[i], records[i])) ||
                       findShorter(numbers[i], instants[i], records[i]);
    }

  private:
    NumberPortabilityList const* listOf(std::uint64_t key) const {
        auto const entry = mapM.find(key);
        return entry == mapM.end() ? nullptr : entry->second;
    }

    bool findFrom(PackedPrefixes prefixes, BAS::DateTime at, NumberPortabilityData& out) const {
        for (; !prefixes.done(); prefixes.shorten())
            if (NumberPortabilityList const* const list = listOf(prefixes.key()); list != nullptr)
                if (list->search(at, out))
                    return true;
        return false;
    }

    bool findShorter(BAS::String const& number, BAS::DateTime at, NumberPortabilityData& out) const {
        PackedPrefixes prefixes(number.view(), lengthsM);
        if (!prefixes.done())
            prefixes.shorten(); // the whole number has been asked
        return findFrom(prefixes, at, out);
    }

    DAT::NumberPortability::BlockPool poolM;
    Map mapM;
    std::vector<unsigned> lengthsM;
};

} // namespace

std::unique_ptr<Peer> makeAbsl() {
    return std::make_unique<HashLists<AbslMap, Ahead::SLOTS>>();
}

std::unique_ptr<Peer> makeAbslAhead() {
    return std::make_unique<HashLists<AbslMap, Ahead::ALL>>();
}

std::unique_ptr<Peer> makeUnordered() {
    return std::make_unique<HashLists<StdMap, Ahead::NOTHING>>();
}

} // namespace npbench
