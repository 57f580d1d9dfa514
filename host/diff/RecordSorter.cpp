#include "host/diff/RecordSorter.h"

#include "host/diff/RecordRun.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

namespace nphost {

namespace {

// A heap of the sources' first records. The one that was shown last stays at its end until the next call, because its
// texts lie in its source.
class MergedSource : public RecordSource {
  public:
    explicit MergedSource(std::vector<std::unique_ptr<RecordSource>> sources) : sourcesM(std::move(sources)) {
        for (auto const& source : sourcesM) {
            Front front = {{}, source.get()};
            if (front.source->next(front.record))
                heapM.push_back(front);
        }
        std::make_heap(heapM.begin(), heapM.end(), comesLater);
    }

    bool next(SortedRecord& record) override {
        if (shownM) // the last one, at the heap's end; only now may its source go on
            replaceShown();
        shownM = !heapM.empty();
        if (!shownM)
            return false;
        std::pop_heap(heapM.begin(), heapM.end(), comesLater);
        record = heapM.back().record;
        return true;
    }

  private:
    struct Front {
        SortedRecord record;
        RecordSource* source;
    };

    // The standard's heap has the largest in front, so the order is turned round.
    static bool comesLater(Front const& one, Front const& other) { return isBefore(other.record, one.record); }

    void replaceShown() {
        if (heapM.back().source->next(heapM.back().record))
            std::push_heap(heapM.begin(), heapM.end(), comesLater);
        else
            heapM.pop_back();
    }

    std::vector<std::unique_ptr<RecordSource>> sourcesM;
    std::vector<Front> heapM; // the next record of every source that has one, the first of all in front
    bool shownM = false;
};

std::unique_ptr<RecordSource> merged(std::vector<FileDescriptor>& runs) {
    std::vector<std::unique_ptr<RecordSource>> sources;
    for (FileDescriptor& run : runs)
        // The source closes it, and with that the file, which has no name, is gone.
        sources.push_back(std::make_unique<RunSource>(std::move(run)));
    runs.clear();
    return std::make_unique<MergedSource>(std::move(sources));
}

FileDescriptor written(RecordSource& source) {
    RunWriter writer;
    for (SortedRecord record; source.next(record);)
        writer.write(record);
    return writer.finish();
}

} // namespace

// Entries grow from the front of the memory, their texts from its end, in words of eight bytes.
class RecordSorter::Block {
  public:
    // Not filled at first: of memory that is never used no page is taken.
    explicit Block(std::size_t bytes)
        : bytesM(std::clamp(bytes, leastBytesCM, mostBytesCM) / wordCM * wordCM),
          memoryM(std::make_unique_for_overwrite<std::byte[]>(bytesM)) {}

    bool isEmpty() const { return countM == 0; }

    // False when there is no room.
    bool add(SortedRecord const& record) {
        std::size_t const texts = hasTexts(record) ? textBytes(record) : 0;
        std::size_t const used = countM * sizeof(PackedRecord) + textsM;
        // Subtracted, never added: a sum might overflow.
        if (texts > bytesM - used || bytesM - used - texts < sizeof(PackedRecord))
            return false;
        PackedRecord entry = packed(record);
        if (texts != 0)
            entry.texts = storeTexts(record, texts);
        entries()[countM] = entry;
        // Each record is compared with the one before as it comes: a file that is in order, as listings are, is never
        // sorted.
        inOrderM = inOrderM && (isEmpty() || isBefore(at(countM - 1), at(countM)));
        ++countM;
        return true;
    }

    static std::size_t bytesFor(SortedRecord const& record) { return sizeof(PackedRecord) + textBytes(record); }

    void sort() {
        if (!inOrderM)
            std::sort(entries(), entries() + countM, [this](PackedRecord const& one, PackedRecord const& other) {
                // Nearly always enough, and the texts, elsewhere in memory, need not be looked at.
                if (one.head != other.head)
                    return one.head < other.head;
                return isBefore(record(one), record(other));
            });
        inOrderM = true;
    }

    std::size_t count() const { return countM; }
    SortedRecord at(std::size_t position) const { return record(entries()[position]); }

    void clear() {
        countM = 0;
        textsM = 0;
        inOrderM = true;
    }

  private:
    static constexpr std::size_t wordCM = 8;
    static constexpr std::size_t leastBytesCM = 4096;
    // What places of 32 bits can tell.
    static constexpr std::size_t mostBytesCM = std::size_t{UINT32_MAX} * wordCM;

    PackedRecord* entries() const { return reinterpret_cast<PackedRecord*>(memoryM.get()); }
    std::byte* textsAt(std::uint32_t place) const { return memoryM.get() + bytesM - place * wordCM; }

    static std::size_t textBytes(SortedRecord const& record) {
        return (sizeof(TextLengths) + record.tail.size() + record.text.size() + wordCM - 1) / wordCM * wordCM;
    }

    std::uint32_t storeTexts(SortedRecord const& record, std::size_t bytes) {
        // Counted from the end, and first: so no place is 0, which means no texts.
        textsM += bytes;
        auto const place = static_cast<std::uint32_t>(textsM / wordCM);
        TextLengths const lengths = {record.tail.size(), record.text.size()};
        std::byte* const to = textsAt(place);
        std::memcpy(to, &lengths, sizeof lengths);
        std::copy_n(record.tail.data(), lengths.tail, reinterpret_cast<char*>(to + sizeof lengths));
        std::copy_n(record.text.data(), lengths.text, reinterpret_cast<char*>(to + sizeof lengths + lengths.tail));
        return place;
    }

    SortedRecord record(PackedRecord const& entry) const {
        SortedRecord record = unpacked(entry);
        if (entry.texts == 0)
            return record;
        TextLengths lengths;
        std::byte const* const from = textsAt(entry.texts);
        std::memcpy(&lengths, from, sizeof lengths);
        auto const* const texts = reinterpret_cast<char const*>(from + sizeof lengths);
        record.tail = {texts, lengths.tail};
        record.text = {texts + lengths.tail, lengths.text};
        return record;
    }

    std::size_t bytesM;
    std::unique_ptr<std::byte[]> memoryM;
    std::size_t countM = 0;
    std::size_t textsM = 0; // bytes of texts
    bool inOrderM = true;
};

// Owns its block when that is all there is; borrows it when it is only on its way into a run.
class RecordSorter::BlockSource : public RecordSource {
  public:
    explicit BlockSource(std::unique_ptr<Block> block) : blockM(std::move(block)) { blockM->sort(); }
    explicit BlockSource(Block& block) : borrowedM(&block) { block.sort(); }

    bool next(SortedRecord& record) override {
        Block const& block = borrowedM != nullptr ? *borrowedM : *blockM;
        if (positionM == block.count())
            return false;
        record = block.at(positionM++);
        return true;
    }

  private:
    std::unique_ptr<Block> blockM;
    Block* borrowedM = nullptr;
    std::size_t positionM = 0;
};

RecordSorter::RecordSorter(std::size_t blockBytes) : blockM(std::make_unique<Block>(blockBytes)) {}

RecordSorter::~RecordSorter() = default;

void RecordSorter::add(SortedRecord const& record) {
    if (blockM->add(record))
        return;
    writeBlock();
    if (blockM->add(record))
        return;
    blockM.reset();
    // One record that is larger than a block: the old block is freed before, and the new one stays.
    blockM = std::make_unique<Block>(Block::bytesFor(record));
    blockM->add(record);
}

void RecordSorter::writeBlock() {
    if (blockM->isEmpty())
        return;
    BlockSource source(*blockM);
    keepRun(written(source), 0);
    blockM->clear();
}

void RecordSorter::keepRun(FileDescriptor run, std::size_t level) {
    if (runsM.size() == level)
        runsM.emplace_back();
    runsM[level].push_back(std::move(run));
    // As digits carry: so many runs of a level become one of the next, and few files are open.
    if (runsM[level].size() == mostRunsCM)
        keepRun(written(*merged(runsM[level])), level + 1);
}

std::unique_ptr<RecordSource> RecordSorter::finish() {
    // All of it fits: nothing was written, and the block is the source.
    if (runsM.empty())
        return std::make_unique<BlockSource>(std::move(blockM));
    writeBlock();
    blockM.reset(); // makes room for whoever sorts next
    std::vector<FileDescriptor> all;
    for (std::vector<FileDescriptor>& runs : runsM)
        std::move(runs.begin(), runs.end(), std::back_inserter(all));
    return merged(all);
}

} // namespace nphost
