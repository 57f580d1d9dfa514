// npbench::Peer: a structure that answers best-match look-ups, and PeerOf<Structure>, which makes one of a class.
//
// Purpose: ours and others behind one interface, so that all are filled alike, checked alike and measured alike. What is
// measured is a loop within the structure's own file: nobody pays for a virtual call a look-up.
// Ownership: a peer owns what it was filled with. Threads: one. Errors: std::bad_alloc and std::runtime_error.
// Complexity: the structure's.
#pragma once

#include "bench/Measure.h"
#include "bench/Queries.h"

#include <array>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace npbench {

using DAT::NumberPortability::NumberPortabilityData;

class Peer {
  public:
    static constexpr std::size_t batchCM = 32;

    virtual ~Peer() = default;

    virtual char const* name() const = 0;
    virtual void fill(PortabilityData const& data, Order order) = 0;
    virtual bool lookUp(BAS::String const& number, BAS::DateTime at, NumberPortabilityData& out) = 0;

    // Makes the queries from `begin` to before `end`, one by one or in batches; returns how many were found.
    virtual std::uint64_t single(Queries const& queries, std::size_t begin, std::size_t end) = 0;
    virtual std::uint64_t batched(Queries const& queries, std::size_t begin, std::size_t end) = 0;
    virtual bool hasBatches() const = 0;

    // How many times fewer queries a round is made of, for structures that would take too long.
    virtual std::size_t slowness() const { return 1; }
    // Bytes that are no resident memory of the process, but a file's.
    virtual std::uint64_t fileBytes() { return 0; }
};

// A Structure has find(number, at, out) and, when it knows batches, findMany(numbers, instants, records, found).
template <class Structure>
class PeerOf : public Peer {
  public:
    static constexpr bool batchesCM = false;

    bool lookUp(BAS::String const& number, BAS::DateTime at, NumberPortabilityData& out) final {
        return self().find(number, at, out);
    }

    std::uint64_t single(Queries const& queries, std::size_t begin, std::size_t end) final {
        NumberPortabilityData out;
        std::uint64_t found = 0;
        for (std::size_t i = begin; i < end; ++i) {
            found += self().find(queries.numbers[i], queries.instants[i], out) ? 1 : 0;
            keep(out);
        }
        return found;
    }

    std::uint64_t batched(Queries const& queries, std::size_t begin, std::size_t end) final {
        std::uint64_t count = 0;
        if constexpr (Structure::batchesCM) {
            std::array<NumberPortabilityData, batchCM> records;
            std::array<bool, batchCM> found{};
            for (std::size_t i = begin; i + batchCM <= end; i += batchCM) {
                self().findMany(std::span(queries.numbers).subspan(i, batchCM),
                                std::span(queries.instants).subspan(i, batchCM), records, found);
                keep(records);
                for (bool const one : found)
                    count += one ? 1 : 0;
            }
        }
        return count;
    }

    bool hasBatches() const final { return Structure::batchesCM; }

  private:
    Structure& self() { return static_cast<Structure&>(*this); }
};

// The tree of this project, the same asked for details, its plain layout, and the others.
std::unique_ptr<Peer> makeOurs();
std::unique_ptr<Peer> makeOursDetailed();
std::unique_ptr<Peer> makePlain();
std::unique_ptr<Peer> makeAbsl();
std::unique_ptr<Peer> makeAbslAhead();
std::unique_ptr<Peer> makeAbslPacked();
std::unique_ptr<Peer> makeUnordered();
std::unique_ptr<Peer> makeMap();
std::unique_ptr<Peer> makeMarisa();
std::unique_ptr<Peer> makeSqlite();
std::unique_ptr<Peer> makeLmdb();

using PeerMaker = std::unique_ptr<Peer> (*)();
std::vector<PeerMaker> allPeers(); // the first is ours, the second is what ratios refer to

// Compares the peer's answers to so many queries with what the data say. Throws WrongAnswer.
void check(Peer& peer, PortabilityData const& data, Queries const& queries, std::size_t count);

} // namespace npbench
