#include "host/RecordSorter.h"

#include "host/HostError.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <string>
#include <system_error>
#include <utility>

namespace nphost {

namespace {

constexpr std::size_t bufferBytesCM = 128UL * 1024;

// A record as it lies in the block and in a run. What it points to lies elsewhere in the block, and right behind it in
// a run.
struct Entry {
    std::uint64_t head;
    std::uint64_t seconds;
    std::uint64_t line;
    std::uint32_t network;
    std::uint32_t texts; // 0: neither tail nor text; in a block where they are, in words from its end
};
static_assert(sizeof(Entry) == 32);

struct TextLengths {
    std::uint64_t tail;
    std::uint64_t text;
};

Entry entryOf(SortedRecord const& record) {
    return {record.head, record.seconds, record.line, record.network, 0};
}

bool hasTexts(SortedRecord const& record) {
    return !record.tail.empty() || !record.text.empty();
}

bool isBefore(SortedRecord const& one, SortedRecord const& other) {
    int const order = compareNumbers(one, other);
    if (order != 0)
        return order < 0;
    return one.seconds != other.seconds ? one.seconds > other.seconds : one.line < other.line;
}

[[noreturn]] void failed(char const* what) {
    int const error = errno;
    std::error_code ignored;
    throw HostError(std::string(what) + " in " + std::filesystem::temp_directory_path(ignored).string() + ": " +
                    std::system_category().message(error) + " (TMPDIR names another folder)");
}

// A file that has no name, so that it goes with its descriptor.
FileDescriptor temporaryFile() {
    std::error_code error;
    std::filesystem::path const folder = std::filesystem::temp_directory_path(error);
    if (error)
        throw HostError("the folder for temporary files, TMPDIR, cannot be used: " + error.message());
    std::string name = (folder / "nphost-XXXXXX").string();
    FileDescriptor file(mkostemp(name.data(), O_CLOEXEC));
    if (!file)
        failed("cannot make a temporary file");
    unlink(name.c_str());
    return file;
}

class RunWriter {
  public:
    RunWriter() : fileM(temporaryFile()) { bufferM.reserve(bufferBytesCM); }

    void write(SortedRecord const& record) {
        Entry entry = entryOf(record);
        entry.texts = hasTexts(record) ? 1 : 0;
        append(&entry, sizeof entry);
        if (entry.texts == 0)
            return;
        TextLengths const lengths = {record.tail.size(), record.text.size()};
        append(&lengths, sizeof lengths);
        append(record.tail.data(), record.tail.size());
        append(record.text.data(), record.text.size());
    }

    FileDescriptor finish() {
        writeOut(bufferM.data(), bufferM.size());
        if (lseek(fileM.get(), 0, SEEK_SET) != 0)
            failed("cannot use a temporary file");
        return std::move(fileM);
    }

  private:
    void append(void const* bytes, std::size_t count) {
        if (count > bufferBytesCM - bufferM.size()) {
            writeOut(bufferM.data(), bufferM.size());
            bufferM.clear();
        }
        auto const* const begin = static_cast<char const*>(bytes);
        if (count > bufferBytesCM)
            return writeOut(begin, count);
        bufferM.insert(bufferM.end(), begin, begin + count);
    }

    void writeOut(char const* bytes, std::size_t count) const {
        while (count > 0) {
            ssize_t const written = ::write(fileM.get(), bytes, count);
            if (written < 0 && errno != EINTR)
                failed("cannot write a temporary file");
            if (written > 0) {
                bytes += written;
                count -= static_cast<std::size_t>(written);
            }
        }
    }

    FileDescriptor fileM;
    std::vector<char> bufferM;
};

class RunSource : public RecordSource {
  public:
    explicit RunSource(FileDescriptor file) : fileM(std::move(file)), bufferM(bufferBytesCM) {}

    bool next(SortedRecord& record) override {
        if (!has(sizeof(Entry)))
            return false;
        Entry entry;
        std::memcpy(&entry, take(sizeof entry), sizeof entry);
        record = {entry.head, entry.seconds, entry.line, entry.network, {}, {}};
        if (entry.texts != 0)
            readTexts(record);
        return true;
    }

  private:
    void readTexts(SortedRecord& record) {
        TextLengths lengths;
        need(sizeof lengths);
        std::memcpy(&lengths, take(sizeof lengths), sizeof lengths);
        need(lengths.tail + lengths.text);
        char const* const texts = take(lengths.tail + lengths.text);
        record.tail = {texts, lengths.tail};
        record.text = {texts + lengths.tail, lengths.text};
    }

    char const* take(std::size_t count) {
        beginM += count;
        return bufferM.data() + beginM - count;
    }

    void need(std::size_t count) {
        if (!has(count))
            throw HostError("a temporary file ended too early");
    }

    // Whether there are so many bytes; they then lie in a row.
    bool has(std::size_t count) {
        if (endM - beginM >= count)
            return true;
        std::memmove(bufferM.data(), bufferM.data() + beginM, endM - beginM);
        endM -= beginM;
        beginM = 0;
        if (count > bufferM.size())
            bufferM.resize(count);
        while (endM < count) {
            ssize_t const got = ::read(fileM.get(), bufferM.data() + endM, bufferM.size() - endM);
            if (got == 0)
                return false;
            if (got < 0 && errno != EINTR)
                failed("cannot read a temporary file");
            endM += got > 0 ? static_cast<std::size_t>(got) : 0;
        }
        return true;
    }

    FileDescriptor fileM;
    std::vector<char> bufferM;
    std::size_t beginM = 0; // what was read and not yet taken
    std::size_t endM = 0;
};

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

std::uint64_t headOf(std::string_view digits) noexcept {
    std::uint64_t head = 0;
    std::size_t const count = std::min(digits.size(), headDigitsCM);
    for (std::size_t i = 0; i < count; ++i)
        head |= static_cast<std::uint64_t>(digits[i] - '0' + 1) << (60 - 4 * i);
    return head;
}

void appendHead(std::string& digits, std::uint64_t head) {
    for (; head != 0; head <<= 4)
        digits += static_cast<char>('0' + (head >> 60) - 1);
}

// Entries grow from the front of the memory, their texts from its end, in words of eight bytes.
class RecordSorter::Block {
  public:
    explicit Block(std::size_t bytes)
        : bytesM(std::clamp(bytes, leastBytesCM, mostBytesCM) / wordCM * wordCM),
          memoryM(std::make_unique_for_overwrite<std::byte[]>(bytesM)) {}

    bool isEmpty() const { return countM == 0; }

    // False when there is no room.
    bool add(SortedRecord const& record) {
        std::size_t const texts = hasTexts(record) ? textBytes(record) : 0;
        std::size_t const used = countM * sizeof(Entry) + textsM;
        if (texts > bytesM - used || bytesM - used - texts < sizeof(Entry))
            return false;
        Entry entry = entryOf(record);
        if (texts != 0)
            entry.texts = storeTexts(record, texts);
        entries()[countM] = entry;
        inOrderM = inOrderM && (isEmpty() || isBefore(at(countM - 1), at(countM)));
        ++countM;
        return true;
    }

    static std::size_t bytesFor(SortedRecord const& record) { return sizeof(Entry) + textBytes(record); }

    void sort() {
        if (!inOrderM)
            std::sort(entries(), entries() + countM, [this](Entry const& one, Entry const& other) {
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
    static constexpr std::size_t mostBytesCM = std::size_t{UINT32_MAX} * wordCM;

    Entry* entries() const { return reinterpret_cast<Entry*>(memoryM.get()); }
    std::byte* textsAt(std::uint32_t place) const { return memoryM.get() + bytesM - place * wordCM; }

    static std::size_t textBytes(SortedRecord const& record) {
        return (sizeof(TextLengths) + record.tail.size() + record.text.size() + wordCM - 1) / wordCM * wordCM;
    }

    std::uint32_t storeTexts(SortedRecord const& record, std::size_t bytes) {
        textsM += bytes;
        auto const place = static_cast<std::uint32_t>(textsM / wordCM);
        TextLengths const lengths = {record.tail.size(), record.text.size()};
        std::byte* const to = textsAt(place);
        std::memcpy(to, &lengths, sizeof lengths);
        std::copy_n(record.tail.data(), lengths.tail, reinterpret_cast<char*>(to + sizeof lengths));
        std::copy_n(record.text.data(), lengths.text, reinterpret_cast<char*>(to + sizeof lengths + lengths.tail));
        return place;
    }

    SortedRecord record(Entry const& entry) const {
        SortedRecord record = {entry.head, entry.seconds, entry.line, entry.network, {}, {}};
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
    blockM = std::make_unique<Block>(Block::bytesFor(record));
    blockM->add(record);
}

void RecordSorter::writeBlock() {
    if (blockM->isEmpty())
        return;
    BlockSource source(*blockM);
    keepRun(written(source), 0);
    blockM->clear();
    ++writtenBlocksM;
}

void RecordSorter::keepRun(FileDescriptor run, std::size_t level) {
    if (runsM.size() == level)
        runsM.emplace_back();
    runsM[level].push_back(std::move(run));
    if (runsM[level].size() == mostRunsCM)
        keepRun(written(*merged(runsM[level])), level + 1);
}

std::unique_ptr<RecordSource> RecordSorter::finish() {
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
