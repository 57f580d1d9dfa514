#include "host/diff/FileComparison.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace nphost {

namespace {

constexpr std::uint32_t nobodyCM = NetworkNames::noneCM;

bool isDuplicate(SortedRecord const& record, std::uint64_t seconds, std::uint64_t head, std::string_view tail) {
    return record.seconds == seconds && record.head == head && record.tail == tail;
}

} // namespace

bool ComparisonResult::isEqual() const {
    return std::all_of(numbers.begin(), numbers.end(), [](std::uint64_t count) { return count == 0; });
}

void FileComparison::Kept::keep(SortedRecord const& record) {
    seconds = record.seconds;
    network = record.network;
    text = record.text;
}

// The records of one file without its duplicates.
// Of equal valid-froms the first line of the file comes first and counts, as in a load; the sorting has kept the order.
class FileComparison::Side {
  public:
    Side(std::unique_ptr<RecordSource> source, SideCounts& counts) : sourceM(std::move(source)), countsM(counts) {
        hasM = sourceM->next(recordM);
        countsM.records += hasM ? 1 : 0;
    }

    bool has() const { return hasM; }
    SortedRecord const& record() const { return recordM; }
    bool isAt(Number const& number) const { return hasM && recordM.head == number.head && recordM.tail == number.tail; }

    // The texts of a record are gone with the source's next step: the number is copied before.
    void advance() {
        std::uint64_t const head = recordM.head;
        std::uint64_t const seconds = recordM.seconds;
        tailM.assign(recordM.tail);
        while ((hasM = sourceM->next(recordM)) && isDuplicate(recordM, seconds, head, tailM))
            ++countsM.duplicates;
        countsM.records += hasM ? 1 : 0;
    }
    void countNumber() { ++countsM.numbers; }

  private:
    std::unique_ptr<RecordSource> sourceM;
    SideCounts& countsM;
    SortedRecord recordM;
    std::string tailM;
    bool hasM;
};

// Finds the record in force among those of a history, which come newest first.
class FileComparison::Held {
  public:
    explicit Held(std::uint64_t at) : atM(at) {}

    // Newest first: the first that is not later than the instant is in force, and ends the search.
    void see(SortedRecord const& record) {
        if (inForceM)
            return;
        // Also while it is still to come: inForceOrFirst falls back on it.
        keptM.keep(record);
        inForceM = record.seconds <= atM;
    }
    Kept const* inForce() const { return inForceM ? &keptM : nullptr; }
    Kept const& inForceOrFirst() const { return keptM; } // the earliest has been seen last

  private:
    std::uint64_t atM;
    Kept keptM;
    bool inForceM = false;
};

// The two histories of one number, seen side by side.
class FileComparison::Histories {
  public:
    explicit Histories(std::uint64_t at) : oldHeldM(at), newHeldM(at) {}

    // The records of one valid-from, newest first; null for none.
    void see(SortedRecord const* old, SortedRecord const* now) {
        if (old != nullptr) {
            oldHeldM.see(*old);
            keepFirst(newestOldM, *old);
        }
        if (now != nullptr)
            newHeldM.see(*now);
        // A record that only the new file has adds to the history. One that the old file had must be there, unchanged;
        // else it was rewritten.
        if (old == nullptr)
            keepFirst(addedM, *now);
        else if (now == nullptr || old->network != now->network || old->text != now->text)
            seeChange(*old, now);
    }

    Kept const* fromNetwork() const { return oldHeldM.inForce(); }
    Kept const* toNetwork() const { return newHeldM.inForce(); }
    Kept const* newestOld() const { return pointer(newestOldM); }
    Kept const* added() const { return pointer(addedM); }
    Kept const* changed() const { return pointer(changedM); }
    Kept const* changedTo() const { return pointer(changedToM); }

  private:
    static Kept const* pointer(std::optional<Kept> const& kept) { return kept ? &*kept : nullptr; }
    static void keepFirst(std::optional<Kept>& kept, SortedRecord const& record) {
        if (!kept)
            kept.emplace().keep(record);
    }
    void seeChange(SortedRecord const& old, SortedRecord const* now) {
        // The first that is seen is the newest, and that one is shown.
        if (changedM)
            return;
        keepFirst(changedM, old);
        if (now != nullptr)
            keepFirst(changedToM, *now);
    }

    Held oldHeldM;
    Held newHeldM;
    std::optional<Kept> newestOldM, addedM, changedM, changedToM; // the newest of each
};

FileComparison::FileComparison(NetworkNames const& names, BAS::DateTime at, std::optional<Difference> shown,
                               Observer observer)
    : namesM(names), atM(at.seconds()), shownM(shown), observerM(std::move(observer)) {}

ComparisonResult FileComparison::compare(std::unique_ptr<RecordSource> before, std::unique_ptr<RecordSource> after) {
    resultM = ComparisonResult();
    movesM.clear();
    Side old(std::move(before), resultM.before);
    Side young(std::move(after), resultM.after);
    while (old.has() || young.has()) {
        int const order = !old.has() ? 1 : !young.has() ? -1 : compareNumbers(old.record(), young.record());
        // Copied, because both files are read on while the number is compared.
        SortedRecord const& first = order <= 0 ? old.record() : young.record();
        numberM.head = first.head;
        numberM.tail.assign(first.tail);
        if (order < 0)
            takeOneSided(Difference::LOST, old);
        else if (order > 0)
            takeOneSided(Difference::GAINED, young);
        else
            takeCommon(old, young);
    }
    listMoves();
    return std::move(resultM);
}

void FileComparison::takeOneSided(Difference what, Side& side) {
    Held held(atM);
    side.countNumber();
    for (; side.isAt(numberM); side.advance())
        held.see(side.record());
    // Nobody has moved: the number is in one of the files only.
    Kept const* const record = &held.inForceOrFirst();
    note(what, what == Difference::LOST ? record : nullptr, what == Difference::GAINED ? record : nullptr);
}

// Both histories come newest first: of the two records the later one is seen alone, equal ones together.
void FileComparison::takeCommon(Side& before, Side& after) {
    Histories histories(atM);
    before.countNumber();
    after.countNumber();
    while (before.isAt(numberM) || after.isAt(numberM)) {
        SortedRecord const* old = before.isAt(numberM) ? &before.record() : nullptr;
        SortedRecord const* now = after.isAt(numberM) ? &after.record() : nullptr;
        if (old != nullptr && now != nullptr && old->seconds != now->seconds)
            (old->seconds < now->seconds ? old : now) = nullptr; // its turn comes
        histories.see(old, now);
        if (old != nullptr)
            before.advance();
        if (now != nullptr)
            after.advance();
    }
    // Rewritten or lengthened, not both: only a history that is there unchanged has become longer.
    if (histories.changed() != nullptr)
        note(Difference::REWRITTEN, histories.changed(), histories.changedTo());
    else if (histories.added() != nullptr)
        note(Difference::LENGTHENED, histories.newestOld(), histories.added());
    noteMove(histories.fromNetwork(), histories.toNetwork());
}

void FileComparison::noteMove(Kept const* from, Kept const* to) {
    if (from == to || (from != nullptr && to != nullptr && from->hasNetworkOf(*to)))
        return; // the first: nobody in both
    note(Difference::MOVED, from, to);
    // Networks beyond the table have no number, so no place in the matrix: their moves are summed.
    bool const unnamed = (from != nullptr && !from->text.empty()) || (to != nullptr && !to->text.empty());
    // The two numbers side by side; "nobody" has that of no name.
    std::uint64_t const key = static_cast<std::uint64_t>(from == nullptr ? nobodyCM : from->network) << 32 |
                              (to == nullptr ? nobodyCM : to->network);
    // Beyond the bound pairs are summed: the table must not grow with the files.
    auto const found = unnamed ? movesM.end() : movesM.find(key);
    if (found != movesM.end())
        ++found->second;
    else if (unnamed || movesM.size() == mostMovesCM)
        ++resultM.otherMoves;
    else
        movesM.emplace(key, 1);
}

void FileComparison::note(Difference what, Kept const* before, Kept const* after) {
    ++resultM.numbers[static_cast<std::size_t>(what)];
    // What nobody asked to see is counted, and no text is made of it.
    if (what != shownM)
        return;
    NumberChange change;
    appendHead(change.number, numberM.head);
    change.number += numberM.tail;
    change.before = shown(before);
    change.after = shown(after);
    observerM(change);
}

std::optional<ShownRecord> FileComparison::shown(Kept const* kept) const {
    if (kept == nullptr)
        return std::nullopt;
    // A name for which the table had no room goes along with its record.
    bool const numbered = kept->network != NetworkNames::noneCM;
    return ShownRecord{BAS::DateTime::fromSeconds(kept->seconds),
                       numbered ? std::string(namesM.nameOf(kept->network)) : kept->text};
}

void FileComparison::listMoves() {
    auto const name = [this](std::uint64_t network) {
        auto const number = static_cast<std::uint32_t>(network);
        return number == nobodyCM ? std::nullopt : std::optional(std::string(namesM.nameOf(number)));
    };
    for (auto const& [networks, numbers] : movesM)
        resultM.moves.push_back({name(networks >> 32), name(networks), numbers});
    // By names, too: the table has no order, and equal counts would come in another one each time.
    std::sort(resultM.moves.begin(), resultM.moves.end(), [](Move const& one, Move const& other) {
        return std::tie(other.numbers, one.from, one.to) < std::tie(one.numbers, other.from, other.to);
    });
}

} // namespace nphost
