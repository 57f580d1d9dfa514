// npbench::PortabilityData: the generated data set of the benchmarks, and queries against it.
//
// Shape: numbers of 14 digits in stored form (00, 49 and ten national digits). Half lie in dense blocks of
// 10,000 consecutive numbers of which one in three is taken, half at random in allocated ranges. 90 % have
// one record, the rest two to four, a year apart; 60 networks of three to six characters. The allocated
// ranges are 5,000 block prefixes of six to nine digits with one record each, older than any number's. The
// file has the lines of one number together, newest first, and the numbers in random order or sorted.
// Threads: constant once constructed. The seed decides everything; nothing else is random.
#pragma once

#include "framework/BAS/DateTime.h"

#include <array>
#include <cstdint>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

namespace npbench {

struct Options {
    std::uint64_t numbers = 10'000'000;
    std::uint64_t seed = 20050101;
    bool sorted = false; // the order of the numbers in the file
};

struct Query {
    BAS::String number;
    BAS::DateTime at;
};
using Queries = std::vector<Query>;

enum class QueryKind {
    HIT,       // the number is stored and has a record by then
    FALL_BACK, // it is not stored, or has no record yet, and lies in an allocated range; half of each
    MISS       // it lies in no allocated range
};

class PortabilityData {
  public:
    static constexpr std::size_t prefixesCM = 5000;
    static constexpr unsigned networksCM = 60;

    explicit PortabilityData(Options const& options);

    // Returns the number of lines.
    std::uint64_t writeFile(std::string const& fileName) const;

    Queries queries(QueryKind kind, std::size_t count) const;

  private:
    using Random = std::mt19937_64;

    void choosePrefixes(Random& random);
    void chooseNumbers(Random& random);
    std::uint64_t inRandomRange(Random& random) const;
    bool isAllocated(std::uint64_t national) const;
    bool isStored(std::uint64_t national) const;
    std::uint64_t nationalFor(QueryKind kind, bool stored, Random& random) const;
    unsigned appendRecords(std::string& lines, std::uint64_t national) const;

    // A prefix of the national digits: how many digits it has, and their value.
    struct Prefix {
        unsigned digits;
        std::uint64_t value;
    };

    Options optionsM;
    std::vector<std::string> networksM;
    std::vector<Prefix> prefixesM;
    std::array<std::unordered_set<std::uint64_t>, 6> prefixSetsM; // by number of digits
    std::vector<std::uint64_t> numbersM;                          // national digits, sorted
};

} // namespace npbench
