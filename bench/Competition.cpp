#include "bench/Competition.h"

#include <iostream>

namespace npbench {

namespace {

constexpr std::string_view REFERENCE = "absl::flat_hash_map";
constexpr std::size_t WARM_UP = 16; // one part of so many

} // namespace

std::vector<Competition::Column> Competition::allColumns() {
    return {{"hit", QueryKind::HIT, false},
            {"fall-back", QueryKind::FALL_BACK, false},
            {"miss", QueryKind::MISS, false},
            {"Zipf hit", QueryKind::ZIPF_HIT, false},
            {"hit in a batch", QueryKind::HIT, true}};
}

Competition::Competition(PortabilityData const& data, Order order, std::size_t queries, std::vector<Column> columns)
    : dataM(data), orderM(order), columnsM(std::move(columns)) {
    for (Column const& column : columnsM)
        if (Queries& made = queriesM.at(static_cast<std::size_t>(column.kind)); made.size() == 0)
            made = makeQueries(data, column.kind, queries);
}

void Competition::enter(PeerMaker maker) {
    std::unique_ptr<Peer> peer = maker();
    std::string const name = peer->name();
    std::cerr << "filling " << name << '\n';
    try {
        peer->fill(dataM, orderM);
    } catch (std::bad_alloc const&) {
        leftOutM.push_back(name);
        return;
    }
    // Before anything is timed: a fast wrong answer is no result.
    for (Queries const& queries : queriesM)
        check(*peer, dataM, queries, checkedCM);
    entrantsM.push_back({std::move(peer), std::vector<std::vector<double>>(columnsM.size())});
}

// Nanoseconds a look-up. Every round goes on where the one before ended.
double Competition::measure(Peer& peer, Column const& column, unsigned round) const {
    Queries const& queries = queriesOf(column.kind);
    // Slow structures are asked less in a round, and go on with other queries in the next.
    std::size_t const count = queries.size() / peer.slowness() / Peer::batchCM * Peer::batchCM;
    std::size_t const begin = round % peer.slowness() * count;
    std::size_t const warm = begin + count / WARM_UP / Peer::batchCM * Peer::batchCM;
    auto const look = [&](std::size_t from, std::size_t to) {
        return column.batched ? peer.batched(queries, from, to) : peer.single(queries, from, to);
    };
    // Not timed: it brings back what other structures have driven out of the caches.
    look(begin, warm);
    auto const start = std::chrono::steady_clock::now();
    std::uint64_t const found = look(warm, begin + count);
    double const seconds = secondsSince(start);
    std::size_t const made = begin + count - warm;
    if (found != (isFound(column.kind) ? made : 0))
        throw WrongAnswer(std::string(peer.name()) + ": wrong outcomes of kind " + column.name);
    return seconds * 1e9 / static_cast<double>(made);
}

void Competition::run(unsigned rounds) {
    for (unsigned round = 0; round < rounds; ++round)
        for (std::size_t i = 0; i < columnsM.size(); ++i)
            // All structures side by side within a round, so that a disturbance hits all of them.
            for (Entrant& entrant : entrantsM)
                if (!columnsM[i].batched || entrant.peer->hasBatches())
                    entrant.rounds[i].push_back(measure(*entrant.peer, columnsM[i], round));
}

Competition::Entrant const* Competition::reference() const {
    for (Entrant const& entrant : entrantsM)
        if (entrant.peer->name() == REFERENCE)
            return &entrant;
    return nullptr;
}

Json Competition::table(char const* key, std::string const& title) const {
    std::vector<std::string> names;
    for (Column const& column : columnsM)
        names.emplace_back(column.name);
    Table table(key, title, names);
    Entrant const* const other = reference();
    for (Entrant const& entrant : entrantsM) {
        std::vector<Json> cells;
        for (std::size_t i = 0; i < columnsM.size(); ++i)
            cells.push_back(other == nullptr ? cellOfRounds(entrant.rounds[i], "ns")
                                             : cellOfRounds(entrant.rounds[i], "ns", other->rounds[i]));
        table.addRow(entrant.peer->name(), cells);
    }
    table.addNote("In parentheses: the time as a multiple of absl::flat_hash_map's; below one is faster.");
    for (std::string const& name : leftOutM)
        table.addNote(name + " is left out: memory did not suffice.");
    return table.json();
}

} // namespace npbench
