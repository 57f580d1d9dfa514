// npbench::PortabilityData: the generated data set of the benchmarks.
//
// Shape: numbers in stored form, 00, 49 and the national digits.
//   mixed    ten national digits; half the numbers in dense blocks of 10,000 consecutive ones of which one in three is
//            taken, half at random in allocated ranges
//   dense    dense blocks only
//   sparse   at random in allocated ranges only
//   lengths  six to thirteen national digits (eight to fifteen with the country code), at random in allocated ranges;
//            one number may be a prefix of another
// 90 % have one record, the rest two to four, a year apart, the first of 2004 to 2019; 60 networks of three to six
// characters. The allocated ranges are 5,000 block prefixes of six to nine digits with one record of 1990 each.
// The records of a key are a function of the key and the seed, so that they need not be kept.
// Ownership: owns its keys, eight bytes each. Threads: constant once constructed, but for release.
// Errors: std::bad_alloc; writing throws std::runtime_error. The seed decides everything; nothing else is random.
// Complexity: construction sorts; a look-up is a binary search for every length.
#pragma once

#include "bench/Key.h"
#include "bench/Permutation.h"
#include "store/NumberPortabilityData.h"

#include <array>
#include <optional>
#include <random>
#include <unordered_set>
#include <vector>

namespace npbench {

enum class Shape { MIXED, DENSE, SPARSE, LENGTHS };
enum class Order { SORTED, SHUFFLED }; // of the keys, in files and as structures are filled

struct DataOptions {
    std::uint64_t numbers = 10'000'000;
    std::uint64_t seed = 20050101;
    Shape shape = Shape::MIXED;
};

struct Record {
    BAS::DateTime validFrom;
    unsigned network = 0;
};

// The records of one key, newest first.
struct History {
    unsigned count = 0;
    std::array<Record, 4> records;
};

class PortabilityData {
  public:
    using Random = std::mt19937_64;
    static constexpr std::size_t prefixesCM = 5000;
    static constexpr unsigned networksCM = 60;

    explicit PortabilityData(DataOptions const& options);

    DataOptions const& options() const { return optionsM; }
    std::uint64_t records() const { return recordsM; }
    std::vector<BAS::SimpleString> const& networks() const { return networksM; }
    std::vector<unsigned> keyLengths() const; // of the stored forms, longest first

    History history(Key key) const;

    // Numbers and block prefixes, in order of their digits.
    std::vector<Key> const& keys() const { return keysM; }
    // Calls visitor(Key) for every number and block prefix.
    template <class Visitor>
    void visit(Order order, Visitor&& visitor) const {
        Permutation const shuffled(keysM.size(), optionsM.seed);
        for (std::uint64_t i = 0; i < keysM.size(); ++i)
            visitor(keysM[order == Order::SORTED ? i : shuffled(i)]);
    }

    static bool isPrefix(Key key) { return key.digits() < leastNumberDigitsCM; }
    bool isStored(Key key) const;
    bool isAllocated(Key key) const; // begins with a block prefix
    Key randomNumber(Random& random) const;
    Key randomInRange(Random& random) const; // an allocated one
    unsigned randomDigits(Random& random) const;

    // What a best-match look-up must find.
    std::optional<Record> expected(Key key, BAS::DateTime at) const;

    // One line a record, those of a key together, newest first.
    void writeFile(std::string const& fileName, Order order) const;
    void appendLines(std::string& lines, Key key, History const& history) const;

    // Frees the keys; only history, networks and keyLengths may be asked from here on.
    void release();

  private:
    static constexpr unsigned leastNumberDigitsCM = 6;
    static constexpr unsigned usualDigitsCM = 10;

    void choosePrefixes(Random& random);
    void chooseNumbers(Random& random);
    void addDense(Random& random, std::size_t size);
    void settle(std::size_t sorted);

    DataOptions optionsM;
    std::vector<BAS::SimpleString> networksM;
    std::vector<Key> prefixesM;
    std::unordered_set<std::uint64_t> prefixSetM; // the bits of the prefixes
    std::vector<Key> keysM;                       // sorted
    std::uint64_t recordsM = 0;
};

} // namespace npbench
