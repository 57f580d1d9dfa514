#include "cache/RecordBatch.h"

#include <algorithm>
#include <array>

namespace DAT::NumberPortability {

void RecordBatch::add(ParsedLine const& parsed) {
    appendLine(parsed.line);
    std::uint32_t const line = lines() - 1;
    if (parsed.outcome != LineOutcome::INSERTED) {
        faultsM.push_back({line, parsed.fault()});
        return;
    }
    // A long network needs memory of its own: first it, then the record, so that none comes in without its network.
    NumberPortabilityData data;
    data.validFromM = parsed.validFrom;
    data.networkIdM = BAS::SimpleString(parsed.words[2]);
    std::uint32_t written = 0;
    // Nearly every number is its key. For the others a place in the line is enough to write it again.
    if (!parsed.isKeyAll()) {
        writtenM.push_back(parsed.column(0));
        written = static_cast<std::uint32_t>(writtenM.size());
    }
    recordsM.push_back({parsed.key, std::move(data), line, written});
}

void RecordBatch::appendLine(std::string_view line) {
    textM.insert(textM.end(), line.begin(), line.end());
    endsM.push_back(textM.size());
}

void RecordBatch::clear() {
    if (textM.capacity() > 2 * mostBytesCM)
        textM = std::vector<char>(); // not {}, which would keep the memory
    textM.clear();
    endsM.clear();
    recordsM.clear();
    writtenM.clear();
    faultsM.clear();
}

// A radix sort from the last byte to the first, which leaves equal keys in their order. Bytes that all keys share, as a
// country's numbers do, cost nothing; neither do records that stand in order already.
void RecordBatch::sort() {
    orderM.clear();
    std::uint64_t differences = 0;
    bool inOrder = true;
    for (Record const& record : recordsM) {
        std::uint64_t const key = record.key.bits();
        differences |= key ^ recordsM.front().key.bits();
        inOrder = inOrder && (orderM.empty() || orderM.back().key <= key);
        orderM.push_back({key, static_cast<std::uint32_t>(orderM.size())});
    }
    for (unsigned shift = 0; !inOrder && shift < 64; shift += 8)
        if ((differences >> shift & 0xff) != 0)
            sortByByte(shift);
}

void RecordBatch::sortByByte(unsigned shift) {
    std::array<std::uint32_t, 256> next{};
    for (Place const& place : orderM)
        ++next[place.key >> shift & 0xff];
    std::uint32_t begin = 0;
    // From counts to first places, so that records of one key keep their order, in which the first one wins.
    for (std::uint32_t& count : next)
        begin += std::exchange(count, begin);
    spareM.resize(orderM.size());
    for (Place const& place : orderM)
        spareM[next[place.key >> shift & 0xff]++] = place;
    orderM.swap(spareM);
}

} // namespace DAT::NumberPortability
