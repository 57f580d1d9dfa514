// nphost::FileComparison: what the records of one data file have become in another.
//
// Purpose: walks the sorted records of both files side by side and tells every number apart:
//   GAINED      it is in the new file only
//   LOST        it is in the old file only
//   LENGTHENED  its old history is an unchanged part of the new one, which has more records
//   REWRITTEN   a record of its old history has another network in the new one, or is not there
//   MOVED       it is in both, and the network in force at a given instant differs; "nobody" counts as one. Such a
//               number is lengthened or rewritten as well.
// In force is the network of the number's latest record from that instant or before; prefixes of it have no say.
// Of records of one number with one valid-from the first of the file counts, the others are duplicates.
// Ownership: borrows the names and the observer's target; owns its sources.
// Threads: none inside.
// Errors: those of the sources and of the observer travel; std::bad_alloc.
// Complexity: linear in the records; no history is held. At most mostMovesCM different moves are counted one by one.
#pragma once

#include "framework/BAS/DateTime.h"
#include "host/diff/NetworkNames.h"
#include "host/diff/RecordSorter.h"

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace nphost {

enum class Difference { GAINED, LOST, MOVED, LENGTHENED, REWRITTEN };
constexpr std::array<char const*, 5> differenceNamesCM = {"gained", "lost", "moved", "lengthened", "rewritten"};

// A record that shows what has become of a number.
struct ShownRecord {
    BAS::DateTime validFrom;
    std::string network;
};

// What is shown of a number:
//   GAINED, LOST  the record in force, or, if there is none, the first to come
//   MOVED         the records in force, none for nobody
//   LENGTHENED    the newest record of the old history, and the newest of those that have come
//   REWRITTEN     the newest record that was changed or has gone, and what the new history has for its valid-from, if
//                 anything
struct NumberChange {
    std::string number;
    std::optional<ShownRecord> before;
    std::optional<ShownRecord> after;
};

struct SideCounts {
    std::uint64_t records = 0;
    std::uint64_t numbers = 0;
    std::uint64_t duplicates = 0;
};

struct Move {
    std::optional<std::string> from; // none: nobody
    std::optional<std::string> to;
    std::uint64_t numbers = 0;
};

struct ComparisonResult {
    SideCounts before;
    SideCounts after;
    std::array<std::uint64_t, differenceNamesCM.size()> numbers{}; // by Difference
    std::vector<Move> moves;                                       // most first, then by names
    std::uint64_t otherMoves = 0;                                  // numbers, of moves beyond mostMovesCM

    std::uint64_t count(Difference what) const { return numbers[static_cast<std::size_t>(what)]; }
    bool isEqual() const;
};

class FileComparison {
  public:
    static constexpr std::size_t mostMovesCM = 65536;
    using Observer = std::function<void(NumberChange const& change)>;

    // `at` says when "in force" is. The observer is told of the numbers with the difference `shown`, in their order.
    FileComparison(NetworkNames const& names, BAS::DateTime at, std::optional<Difference> shown, Observer observer);

    ComparisonResult compare(std::unique_ptr<RecordSource> before, std::unique_ptr<RecordSource> after);

  private:
    class Side;
    class Held;
    class Histories;

    // A record that outlives its source's next step.
    struct Kept {
        std::uint64_t seconds = 0;
        std::uint32_t network = 0;
        std::string text;

        void keep(SortedRecord const& record);
        bool hasNetworkOf(Kept const& other) const { return network == other.network && text == other.text; }
    };
    struct Number {
        std::uint64_t head = 0;
        std::string tail;
    };

    void takeOneSided(Difference what, Side& side);
    void takeCommon(Side& before, Side& after);
    void noteMove(Kept const* from, Kept const* to);
    void note(Difference what, Kept const* before, Kept const* after);
    std::optional<ShownRecord> shown(Kept const* kept) const;
    void listMoves();

    NetworkNames const& namesM;
    std::uint64_t atM;
    std::optional<Difference> shownM;
    Observer observerM;
    Number numberM;                                          // at which the walk is
    std::unordered_map<std::uint64_t, std::uint64_t> movesM; // numbers by both networks
    ComparisonResult resultM;
};

} // namespace nphost
