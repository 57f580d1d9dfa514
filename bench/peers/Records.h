// What several peers need: the records of a key as this project's history, and a number's digits packed into a word.
#pragma once

#include "bench/PortabilityData.h"
#include "store/NumberPortabilityList.h"

namespace npbench {

using DAT::NumberPortability::NumberPortabilityList;

inline DAT::NumberPortability::NumberPortabilityData portabilityData(PortabilityData const& data,
                                                                     Record const& record) {
    return {record.validFrom, data.networks()[record.network]};
}

inline void fillList(NumberPortabilityList& list, PortabilityData const& data, History const& history) {
    for (unsigned i = 0; i < history.count; ++i)
        list.insert(portabilityData(data, history.records[i])); // newest first already
}

// The digits of a number as one value for each length that is stored, longest first: value * 32 + length.
class PackedPrefixes {
  public:
    PackedPrefixes(std::string_view number, std::vector<unsigned> const& lengths) : lengthsM(lengths) {
        valuesM[0] = 0;
        std::size_t const length = std::min(number.size(), valuesM.size() - 1);
        for (std::size_t i = 0; i < length; ++i)
            valuesM[i + 1] = 10 * valuesM[i] + static_cast<unsigned>(number[i] - '0');
        while (nextM < lengthsM.size() && lengthsM[nextM] > length)
            ++nextM;
    }

    bool done() const { return nextM == lengthsM.size(); }
    std::uint64_t key() const { return valuesM[lengthsM[nextM]] << 5 | lengthsM[nextM]; }
    void shorten() { ++nextM; }

  private:
    std::vector<unsigned> const& lengthsM;
    std::size_t nextM = 0;
    std::array<std::uint64_t, 18> valuesM;
};

// Of a whole number.
inline std::uint64_t packed(std::string_view number) {
    std::uint64_t value = 0;
    for (char const digit : number)
        value = 10 * value + static_cast<unsigned>(digit - '0');
    return value << 5 | number.size();
}

} // namespace npbench
