#include "bench/Queries.h"

#include <cmath>

namespace npbench {

namespace {

using Random = PortabilityData::Random;

constexpr double RANDOM_RANGE = 18446744073709551616.0; // how many values a Random has

class QueryMaker {
  public:
    QueryMaker(PortabilityData const& data, QueryKind kind)
        // Another seed for each kind, so that the kinds do not ask in step.
        : dataM(data), kindM(kind), randomM(data.options().seed + 2 + static_cast<std::uint64_t>(kind)),
          rankingM(data.keys().size(), data.options().seed + 7) {}

    Key number() {
        if (kindM == QueryKind::HIT)
            return dataM.randomNumber(randomM);
        if (kindM == QueryKind::ZIPF_HIT)
            return ranked();
        for (;;) {
            Key const key = kindM == QueryKind::FALL_BACK ? dataM.randomInRange(randomM) : anywhere();
            // Drawn until it fits: most do, for few numbers are taken.
            if (!dataM.isStored(key) && dataM.isAllocated(key) == (kindM == QueryKind::FALL_BACK))
                return key;
        }
    }

    BAS::DateTime instant(Key key) {
        if (randomM() % 5 != 0)
            return lateM;
        if (kindM == QueryKind::FALL_BACK || kindM == QueryKind::MISS)
            return earlyM;
        History const history = dataM.history(key);
        std::uint64_t const chosen = 1 + randomM() % history.count;
        // One step past the oldest record is before all of them.
        return chosen == history.count ? earlyM : history.records[chosen].validFrom;
    }

  private:
    Key anywhere() {
        unsigned const digits = dataM.randomDigits(randomM);
        return {randomM() % powerOfTen(digits), digits};
    }

    // The rank is (n + 1) to the power of a uniform number: the continuous form of the law with s = 1.
    Key ranked() {
        auto const size = static_cast<double>(dataM.keys().size());
        for (;;) {
            auto const rank =
                static_cast<std::uint64_t>(std::pow(size + 1, static_cast<double>(randomM()) / RANDOM_RANGE)) - 1;
            Key const key = rank < dataM.keys().size() ? dataM.keys()[rankingM(rank)] : Key();
            // The ranking is of all keys; prefixes are no numbers to ask for.
            if (key != Key() && !PortabilityData::isPrefix(key))
                return key;
        }
    }

    PortabilityData const& dataM;
    QueryKind kindM;
    Random randomM;
    Permutation rankingM;
    BAS::DateTime lateM{"20240630120000"};
    BAS::DateTime earlyM{"19950630120000"};
};

} // namespace

Queries makeQueries(PortabilityData const& data, QueryKind kind, std::size_t count) {
    QueryMaker maker(data, kind);
    Queries queries;
    queries.numbers.reserve(count);
    queries.instants.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        Key const key = maker.number();
        queries.numbers.push_back(key.text());
        queries.instants.push_back(maker.instant(key));
    }
    return queries;
}

} // namespace npbench
