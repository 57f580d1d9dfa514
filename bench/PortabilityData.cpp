#include "bench/PortabilityData.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace npbench {

namespace {

constexpr std::uint64_t DENSE_BLOCK = 10'000;
constexpr std::size_t WRITE_BLOCK = 1 << 20;
constexpr unsigned LONGEST_PREFIX = 5;

// Days up to 28, so that every month has them.
BAS::DateTime instant(unsigned year, std::uint64_t bits) {
    char text[32];
    std::snprintf(text, sizeof text, "%04u%02u%02u%02u%02u%02u", year, unsigned(bits % 12 + 1),
                  unsigned(bits / 16 % 28 + 1), unsigned(bits / 512 % 24), unsigned(bits / 16384 % 60),
                  unsigned(bits / 1048576 % 60));
    return BAS::DateTime(text);
}

} // namespace

PortabilityData::PortabilityData(DataOptions const& options) : optionsM(options) {
    Random random(options.seed);
    for (unsigned i = 0; i < networksCM; ++i) {
        std::string name(3 + i % 4, 'A'); // the first two letters tell them apart
        name[0] = static_cast<char>('A' + i / 26);
        name[1] = static_cast<char>('A' + i % 26);
        networksM.emplace_back(name.c_str());
    }
    choosePrefixes(random);
    chooseNumbers(random);
    for (Key const key : keysM)
        recordsM += history(key).count;
}

void PortabilityData::choosePrefixes(Random& random) {
    while (prefixesM.size() < prefixesCM) {
        // 20 of six digits (two of them national), 280 of seven, 1,700 of eight and 3,000 of nine
        std::size_t const chosen = prefixesM.size();
        unsigned const digits = chosen < 20 ? 2 : chosen < 300 ? 3 : chosen < 2000 ? 4 : LONGEST_PREFIX;
        // No prefix begins with a 0: that would be an access code.
        std::uint64_t const lowest = powerOfTen(digits - 1);
        Key const prefix(lowest + random() % (9 * lowest), digits);
        // One prefix may begin with another, as allocated ranges do.
        if (prefixSetM.insert(prefix.bits()).second)
            prefixesM.push_back(prefix);
    }
}

unsigned PortabilityData::randomDigits(Random& random) const {
    if (optionsM.shape != Shape::LENGTHS)
        return usualDigitsCM;
    return leastNumberDigitsCM + unsigned(random() % (Key::mostDigitsCM - leastNumberDigitsCM + 1));
}

Key PortabilityData::randomInRange(Random& random) const {
    Key const prefix = prefixesM[random() % prefixesM.size()];
    unsigned const digits = randomDigits(random);
    std::uint64_t const size = powerOfTen(digits - prefix.digits());
    return {prefix.value() * size + random() % size, digits};
}

// Blocks of their own each, so that one in three stays one in three.
void PortabilityData::addDense(Random& random, std::size_t size) {
    std::unordered_set<std::uint64_t> blocks;
    while (keysM.size() < size) {
        std::uint64_t const block = randomInRange(random).value() / DENSE_BLOCK * DENSE_BLOCK;
        if (!blocks.insert(block).second)
            continue;
        for (std::uint64_t i = 0; i < DENSE_BLOCK && keysM.size() < size; ++i)
            if (random() % 3 == 0)
                keysM.emplace_back(block + i, usualDigitsCM);
    }
}

// Sorts what came after the first `sorted` keys in among them and drops what is there twice.
void PortabilityData::settle(std::size_t sorted) {
    auto const middle = keysM.begin() + static_cast<std::ptrdiff_t>(sorted);
    std::sort(middle, keysM.end());
    std::inplace_merge(keysM.begin(), middle, keysM.end());
    keysM.erase(std::unique(keysM.begin(), keysM.end()), keysM.end());
}

void PortabilityData::chooseNumbers(Random& random) {
    std::size_t const size = optionsM.numbers + prefixesM.size();
    std::size_t const dense = optionsM.shape == Shape::DENSE   ? optionsM.numbers
                              : optionsM.shape == Shape::MIXED ? optionsM.numbers / 2
                                                               : 0;
    keysM.reserve(size);
    keysM = prefixesM;
    // The assignment may have taken the room that was reserved.
    keysM.reserve(size);
    addDense(random, prefixesM.size() + dense);
    // Drawn at random, some come twice: what is dropped is drawn again until there are enough.
    for (std::size_t sorted = 0; sorted == 0 || keysM.size() < size; sorted = keysM.size()) {
        while (keysM.size() < size)
            keysM.push_back(randomInRange(random));
        settle(sorted);
    }
}

std::vector<unsigned> PortabilityData::keyLengths() const {
    std::vector<unsigned> lengths;
    unsigned const shortest = optionsM.shape == Shape::LENGTHS ? leastNumberDigitsCM : usualDigitsCM;
    unsigned const longest = optionsM.shape == Shape::LENGTHS ? Key::mostDigitsCM : usualDigitsCM;
    for (unsigned digits = longest; digits >= 2; --digits)
        if (digits >= shortest || digits <= LONGEST_PREFIX)
            lengths.push_back(digits + unsigned(Key::storedPrefixCM.size()));
    return lengths;
}

// From bits of one mixed number each, so that no key needs a generator of its own, nor any order.
History PortabilityData::history(Key key) const {
    std::uint64_t const bits = mixed(key.bits() ^ optionsM.seed);
    History result;
    // Before all records of numbers: a fall-back has an answer at every instant that is asked for.
    if (isPrefix(key)) {
        result.count = 1;
        result.records[0] = {BAS::DateTime("19900101000000"), unsigned(bits % networksCM)};
        return result;
    }
    result.count = bits % 10 != 0 ? 1 : 2 + unsigned(bits / 16 % 3);
    unsigned const firstYear = 2004 + unsigned(bits / 64 % 16);
    for (unsigned i = 0; i < result.count; ++i) {
        unsigned const age = result.count - 1 - i;
        result.records[i] = {instant(firstYear + age, bits >> 16), unsigned((bits / 1024 + age) % networksCM)};
    }
    return result;
}

bool PortabilityData::isStored(Key key) const {
    return std::binary_search(keysM.begin(), keysM.end(), key);
}

bool PortabilityData::isAllocated(Key key) const {
    for (unsigned digits = 2; digits <= LONGEST_PREFIX; ++digits)
        if (prefixSetM.count(key.prefix(digits).bits()) != 0)
            return true;
    return false;
}

Key PortabilityData::randomNumber(Random& random) const {
    for (;;) {
        Key const key = keysM[random() % keysM.size()];
        if (!isPrefix(key))
            return key;
    }
}

std::optional<Record> PortabilityData::expected(Key key, BAS::DateTime at) const {
    // By the rule of the best match, and as plainly as can be: this is what structures are checked against.
    for (unsigned digits = key.digits(); digits >= 2; --digits) {
        Key const prefix = key.prefix(digits);
        if (!isStored(prefix))
            continue;
        History const found = history(prefix);
        for (unsigned i = 0; i < found.count; ++i)
            if (found.records[i].validFrom <= at)
                return found.records[i];
    }
    return std::nullopt;
}

void PortabilityData::appendLines(std::string& lines, Key key, History const& history) const {
    for (unsigned i = 0; i < history.count; ++i) {
        char digits[14];
        history.records[i].validFrom.toDigits(digits);
        key.appendTo(lines);
        lines.append("  ").append(digits, sizeof digits).append("  ");
        lines.append(networksM[history.records[i].network].view()) += '\n';
    }
}

void PortabilityData::writeFile(std::string const& fileName, Order order) const {
    std::ofstream out(fileName, std::ios::binary);
    std::string lines;
    visit(order, [&](Key key) {
        appendLines(lines, key, history(key));
        if (lines.size() < WRITE_BLOCK)
            return;
        out << lines;
        lines.clear();
    });
    out << lines << std::flush;
    if (!out)
        throw std::runtime_error("cannot write " + fileName);
}

void PortabilityData::release() {
    std::vector<Key>().swap(keysM);
}

} // namespace npbench
