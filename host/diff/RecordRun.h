// nphost::RunWriter and RunSource: sorted records in a temporary file, and back.
//
// Purpose: what RecordSorter writes when its block is full. A run is read once, from its beginning.
// Format: for each record a PackedRecord, and, if it has texts, their lengths and then the texts.
// Ownership: the file has no name; it lies in the folder for temporary files (TMPDIR) and goes with its descriptor.
// Texts of a record that was read stay valid until the next one is.
// Threads: none inside.
// Errors: HostError with the system's reason when the file cannot be made, written or read; std::bad_alloc.
// Complexity: linear in the bytes; a buffer of bufferBytesCM each, a larger one where a record has longer texts.
#pragma once

#include "host/base/FileDescriptor.h"
#include "host/diff/SortedRecord.h"

#include <string_view>
#include <vector>

namespace nphost {

// A record without its texts, which lie elsewhere in a block and right behind it in a run.
struct PackedRecord {
    std::uint64_t head;
    std::uint64_t seconds;
    std::uint64_t line;
    std::uint32_t network;
    std::uint32_t texts; // 0: it has none; in a block where they are, in words of eight bytes from its end
};
static_assert(sizeof(PackedRecord) == 32);

struct TextLengths {
    std::uint64_t tail;
    std::uint64_t text;
};

inline PackedRecord packed(SortedRecord const& record) {
    return {record.head, record.seconds, record.line, record.network, 0};
}
inline SortedRecord unpacked(PackedRecord const& record) {
    return {record.head, record.seconds, record.line, record.network, {}, {}};
}
inline bool hasTexts(SortedRecord const& record) {
    return !record.tail.empty() || !record.text.empty();
}

class RunWriter {
  public:
    RunWriter();

    void write(SortedRecord const& record);
    // The run, ready to be read; nothing may be written any more.
    FileDescriptor finish();

  private:
    void append(void const* bytes, std::size_t count);
    void writeOut(std::string_view bytes) const;

    FileDescriptor fileM;
    std::vector<char> bufferM;
};

class RunSource : public RecordSource {
  public:
    explicit RunSource(FileDescriptor file);

    bool next(SortedRecord& record) override;

  private:
    void readTexts(SortedRecord& record);
    char const* take(std::size_t count);
    void need(std::size_t count);
    bool has(std::size_t count);

    FileDescriptor fileM;
    std::vector<char> bufferM;
    std::size_t beginM = 0; // what was read and not yet taken
    std::size_t endM = 0;
};

} // namespace nphost
