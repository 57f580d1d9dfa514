// npbench::Competition: times look-ups of several structures over one data set, all of them in turn in every round.
//
// What disturbs the machine for a while so hits all alike; the median of the rounds is reported.
// Ownership: owns the peers; borrows the data. Threads: one. Errors: enter and run throw WrongAnswer when a structure
// answers what it must not. Complexity: rounds times structures times queries.
#pragma once

#include "bench/Report.h"
#include "bench/peers/Peer.h"

namespace npbench {

class Competition {
  public:
    struct Column {
        char const* name;
        QueryKind kind;
        bool batched;
    };

    Competition(PortabilityData const& data, Order order, std::size_t queries, std::vector<Column> columns);

    // Fills and checks the structure; leaves it out, and says so in the table, when memory does not suffice.
    void enter(PeerMaker maker);
    void run(unsigned rounds);

    // Times of a look-up in ns, with the ratio to the reference's.
    Json table(char const* key, std::string const& title) const;

    static std::vector<Column> allColumns();

  private:
    static constexpr std::size_t checkedCM = 20'000; // look-ups of each kind

    struct Entrant {
        std::unique_ptr<Peer> peer;
        std::vector<std::vector<double>> rounds; // by column
    };

    Queries const& queriesOf(QueryKind kind) const { return queriesM.at(static_cast<std::size_t>(kind)); }
    double measure(Peer& peer, Column const& column, unsigned round) const;
    Entrant const* reference() const;

    PortabilityData const& dataM;
    Order orderM;
    std::vector<Column> columnsM;
    std::array<Queries, 4> queriesM;
    std::vector<Entrant> entrantsM;
    std::vector<std::string> leftOutM;
};

// Fills one structure in a process of its own: {"name", "bytes", "seconds"}. Throws NoRoom.
Json weigh(PeerMaker maker, PortabilityData const& data, Order order, std::uint64_t mostBytes);

} // namespace npbench
