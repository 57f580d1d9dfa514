#include "bench/PortabilityData.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string_view>

namespace npbench {

namespace {

constexpr unsigned NATIONAL_DIGITS = 10;
constexpr std::uint64_t DENSE_BLOCK = 10'000;
constexpr std::string_view STORED_PREFIX = "0049";
constexpr std::size_t WRITE_BLOCK = 1 << 20;

std::uint64_t powerOfTen(unsigned exponent) {
    std::uint64_t power = 1;
    while (exponent-- > 0)
        power *= 10;
    return power;
}

std::string digits(std::uint64_t value, unsigned width) {
    std::string text = std::to_string(value);
    return std::string(width - text.size(), '0') + text;
}

std::string storedForm(std::uint64_t value, unsigned width = NATIONAL_DIGITS) {
    return std::string(STORED_PREFIX) + digits(value, width);
}

// The records of a number are a function of the number, so that they need not be kept (splitmix64).
std::uint64_t mixed(std::uint64_t value) {
    value += 0x9e3779b97f4a7c15U;
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9U;
    value = (value ^ (value >> 27)) * 0x94d049bb133111ebU;
    return value ^ (value >> 31);
}

// Between 2004 and 2019, as 14 digits without the year.
std::string monthToSecond(std::uint64_t bits) {
    char text[16];
    std::snprintf(text, sizeof text, "%02u%02u%02u%02u%02u", unsigned(bits % 12 + 1), unsigned(bits / 16 % 28 + 1),
                  unsigned(bits / 512 % 24), unsigned(bits / 16384 % 60), unsigned(bits / 1048576 % 60));
    return text;
}

} // namespace

PortabilityData::PortabilityData(Options const& options) : optionsM(options) {
    Random random(options.seed);
    for (unsigned i = 0; i < networksCM; ++i) {
        std::string name(3 + i % 4, 'A'); // the first two letters tell them apart
        name[0] = static_cast<char>('A' + i / 26);
        name[1] = static_cast<char>('A' + i % 26);
        networksM.push_back(name);
    }
    choosePrefixes(random);
    chooseNumbers(random);
}

void PortabilityData::choosePrefixes(Random& random) {
    while (prefixesM.size() < prefixesCM) {
        // 20 of six digits (two of them national), 280 of seven, 1,700 of eight and 3,000 of nine
        std::size_t const chosen = prefixesM.size();
        unsigned const length = chosen < 20 ? 2 : chosen < 300 ? 3 : chosen < 2000 ? 4 : 5;
        std::uint64_t const lowest = powerOfTen(length - 1);
        std::uint64_t const value = lowest + random() % (9 * lowest);
        if (prefixSetsM[length].insert(value).second)
            prefixesM.push_back({length, value});
    }
}

std::uint64_t PortabilityData::inRandomRange(Random& random) const {
    Prefix const& prefix = prefixesM[random() % prefixesM.size()];
    std::uint64_t const size = powerOfTen(NATIONAL_DIGITS - prefix.digits);
    return prefix.value * size + random() % size;
}

void PortabilityData::chooseNumbers(Random& random) {
    std::uint64_t dense = optionsM.numbers / 2;
    while (numbersM.size() < optionsM.numbers) {
        while (numbersM.size() < dense) {
            std::uint64_t const block = inRandomRange(random) / DENSE_BLOCK * DENSE_BLOCK;
            for (std::uint64_t i = 0; i < DENSE_BLOCK && numbersM.size() < dense; ++i)
                if (random() % 3 == 0)
                    numbersM.push_back(block + i);
        }
        while (numbersM.size() < optionsM.numbers)
            numbersM.push_back(inRandomRange(random));
        std::sort(numbersM.begin(), numbersM.end());
        numbersM.erase(std::unique(numbersM.begin(), numbersM.end()), numbersM.end());
        dense = 0; // what was drawn twice is made up for at random
    }
}

unsigned PortabilityData::appendRecords(std::string& lines, std::uint64_t national) const {
    std::uint64_t const bits = mixed(national ^ optionsM.seed);
    unsigned const records = bits % 10 != 0 ? 1 : 2 + unsigned(bits / 16 % 3);
    unsigned const firstYear = 2004 + unsigned(bits / 64 % 16);
    std::string const number = storedForm(national);
    for (unsigned i = records; i-- > 0;) {
        lines += number + "  " + std::to_string(firstYear + i) + monthToSecond(bits >> 16) + "  ";
        lines += networksM[(bits / 1024 + i) % networksM.size()] + '\n';
    }
    return records;
}

std::uint64_t PortabilityData::writeFile(std::string const& fileName) const {
    std::vector<std::uint64_t> order = numbersM;
    if (!optionsM.sorted)
        std::shuffle(order.begin(), order.end(), Random(optionsM.seed + 1));
    std::ofstream out(fileName, std::ios::binary);
    std::string lines;
    std::uint64_t count = prefixesM.size();
    for (Prefix const& prefix : prefixesM)
        lines += storedForm(prefix.value, prefix.digits) + "  19900101000000  " +
                 networksM[prefix.value % networksM.size()] + '\n';
    for (std::uint64_t const national : order) {
        count += appendRecords(lines, national);
        if (lines.size() >= WRITE_BLOCK) {
            out << lines;
            lines.clear();
        }
    }
    out << lines << std::flush;
    if (!out)
        throw std::runtime_error("cannot write " + fileName);
    return count;
}

bool PortabilityData::isAllocated(std::uint64_t national) const {
    for (unsigned length = 2; length < prefixSetsM.size(); ++length)
        if (prefixSetsM[length].count(national / powerOfTen(NATIONAL_DIGITS - length)) != 0)
            return true;
    return false;
}

bool PortabilityData::isStored(std::uint64_t national) const {
    return std::binary_search(numbersM.begin(), numbersM.end(), national);
}

std::uint64_t PortabilityData::nationalFor(QueryKind kind, bool stored, Random& random) const {
    if (stored)
        return numbersM[random() % numbersM.size()];
    for (;;) {
        std::uint64_t const national =
            kind == QueryKind::MISS ? random() % powerOfTen(NATIONAL_DIGITS) : inRandomRange(random);
        if (!isStored(national) && isAllocated(national) == (kind == QueryKind::FALL_BACK))
            return national;
    }
}

Queries PortabilityData::queries(QueryKind kind, std::size_t count) const {
    BAS::DateTime const late(std::string_view("20240630120000"));
    BAS::DateTime const early(std::string_view("20010630120000")); // only the block prefixes have a record by then
    Random random(optionsM.seed + 2);
    Queries result;
    result.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        bool const tooEarly = kind == QueryKind::FALL_BACK && i % 2 == 0;
        std::uint64_t const national = nationalFor(kind, kind == QueryKind::HIT || tooEarly, random);
        result.push_back({storedForm(national), tooEarly ? early : late});
    }
    return result;
}

} // namespace npbench
