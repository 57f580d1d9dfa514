// A hash table from packed digits to one record in eight bytes; numbers with several records are in a side table.
#include "bench/peers/Peer.h"
#include "bench/peers/Records.h"

#include <absl/container/flat_hash_map.h>

namespace npbench {

namespace {

class HashPacked : public PeerOf<HashPacked> {
  public:
    static constexpr bool batchesCM = true;

    char const* name() const override { return "absl, records packed"; }

    void fill(PortabilityData const& data, Order order) override {
        lengthsM = data.keyLengths();
        networksM = data.networks();
        mapM.reserve(data.keys().size());
        data.visit(order, [&](Key key) {
            History const history = data.history(key);
            mapM.emplace(packed(key.text().view()), valueOf(history));
        });
        severalM.shrink_to_fit();
    }

    bool find(BAS::String const& number, BAS::DateTime at, NumberPortabilityData& out) const {
        return findFrom(PackedPrefixes(number.view(), lengthsM), at, out);
    }

    void findMany(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                  std::span<NumberPortabilityData> records, std::span<bool> found) const {
        std::array<std::uint64_t, Peer::batchCM> keys;
        for (std::size_t i = 0; i < numbers.size(); ++i) {
            keys[i] = packed(numbers[i].view());
            mapM.prefetch(keys[i]);
        }
        for (std::size_t i = 0; i < numbers.size(); ++i)
            found[i] = findWhole(keys[i], instants[i], records[i]) || findShorter(numbers[i], instants[i], records[i]);
    }

  private:
    // The seconds in 39 bits and the network above them; several records have all ones there, and their place below.
    static constexpr unsigned secondsBitsCM = 39;
    static constexpr std::uint64_t secondsMaskCM = (std::uint64_t{1} << secondsBitsCM) - 1;
    static constexpr std::uint64_t severalMarkCM = (std::uint64_t{1} << (64 - secondsBitsCM)) - 1;
    static_assert(BAS::DateTime::invalidSecsCM <= secondsMaskCM);

    static std::uint64_t pack(Record const& record) {
        return std::uint64_t{record.network} << secondsBitsCM | record.validFrom.seconds();
    }

    // A place is that of the number of records, which the records follow, newest first.
    std::uint64_t valueOf(History const& history) {
        if (history.count == 1)
            return pack(history.records[0]);
        std::uint64_t const place = severalM.size();
        severalM.push_back(history.count);
        for (unsigned i = 0; i < history.count; ++i)
            severalM.push_back(pack(history.records[i]));
        return severalMarkCM << secondsBitsCM | place;
    }

    bool take(std::uint64_t value, BAS::DateTime at, NumberPortabilityData& out) const {
        if ((value & secondsMaskCM) > at.seconds())
            return false;
        out.networkIdM = networksM[value >> secondsBitsCM];
        out.validFromM = dateTime(value & secondsMaskCM);
        return true;
    }

    bool findWhole(std::uint64_t key, BAS::DateTime at, NumberPortabilityData& out) const {
        auto const entry = mapM.find(key);
        if (entry == mapM.end())
            return false;
        if (entry->second >> secondsBitsCM != severalMarkCM)
            return take(entry->second, at, out);
        std::uint64_t const* const several = &severalM[entry->second & secondsMaskCM];
        for (std::uint64_t i = 1; i <= *several; ++i)
            if (take(several[i], at, out))
                return true;
        return false;
    }

    bool findFrom(PackedPrefixes prefixes, BAS::DateTime at, NumberPortabilityData& out) const {
        for (; !prefixes.done(); prefixes.shorten())
            if (findWhole(prefixes.key(), at, out))
                return true;
        return false;
    }

    bool findShorter(BAS::String const& number, BAS::DateTime at, NumberPortabilityData& out) const {
        PackedPrefixes prefixes(number.view(), lengthsM);
        if (!prefixes.done())
            prefixes.shorten(); // the whole number has been asked
        return findFrom(prefixes, at, out);
    }

    static BAS::DateTime dateTime(std::uint64_t seconds) { return std::bit_cast<BAS::DateTime>(seconds); }

    absl::flat_hash_map<std::uint64_t, std::uint64_t> mapM;
    std::vector<std::uint64_t> severalM;
    std::vector<BAS::SimpleString> networksM;
    std::vector<unsigned> lengthsM;
};

} // namespace

std::unique_ptr<Peer> makeAbslPacked() {
    return std::make_unique<HashPacked>();
}

} // namespace npbench
