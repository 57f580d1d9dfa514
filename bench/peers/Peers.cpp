#include "bench/Process.h"
#include "bench/peers/Peer.h"

namespace npbench {

namespace {

std::string text(bool found, NumberPortabilityData const& record) {
    return found ? std::string(record.networkIdM.view()) + " from " + record.validFromM.asString("%Y%m%d%H%M%S").str()
                 : "nothing";
}

void compare(Peer const& peer, PortabilityData const& data, Queries const& queries, std::size_t i, bool found,
             NumberPortabilityData const& out) {
    std::optional<Record> const expected = data.expected(Key::of(queries.numbers[i].view()), queries.instants[i]);
    NumberPortabilityData wanted;
    if (expected)
        wanted = NumberPortabilityData(expected->validFrom, data.networks()[expected->network]);
    if (text(found, out) == text(expected.has_value(), wanted))
        return;
    throw WrongAnswer(std::string(peer.name()) + " says " + text(found, out) + " for " + queries.numbers[i].str() +
                      " at " + queries.instants[i].asString("%Y%m%d%H%M%S").str() + ", the data say " +
                      text(expected.has_value(), wanted));
}

} // namespace

std::vector<PeerMaker> allPeers() {
    return {makeOurs,      makeAbsl,   makeAbslAhead, makeAbslPacked, makePlain,
            makeUnordered, makeMarisa, makeMap,       makeSqlite,     makeLmdb};
}

void check(Peer& peer, PortabilityData const& data, Queries const& queries, std::size_t count) {
    for (std::size_t i = 0; i < std::min(count, queries.size()); ++i) {
        NumberPortabilityData out;
        bool const found = peer.lookUp(queries.numbers[i], queries.instants[i], out);
        compare(peer, data, queries, i, found, out);
    }
    std::size_t const end = std::min(count, queries.size()) / Peer::batchCM * Peer::batchCM;
    std::uint64_t expected = 0;
    for (std::size_t i = 0; i < end; ++i)
        expected += data.expected(Key::of(queries.numbers[i].view()), queries.instants[i]) ? 1 : 0;
    if (peer.hasBatches() && peer.batched(queries, 0, end) != expected)
        throw WrongAnswer(std::string(peer.name()) + " finds another number of records in batches");
}

} // namespace npbench
