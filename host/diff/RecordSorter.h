// nphost::RecordSorter: brings the records of a data file into the order of their numbers, whatever the file's size.
//
// Purpose: gathers records in one block of memory of a fixed size. When it is full it is sorted and written to a
// temporary file, a run; in the end the runs are merged as they are read. Records that come in order are not sorted,
// and those that the block holds are never written.
// Units and ranges: a record takes 32 bytes, and what its number has beyond sixteen digits. More than mostRunsCM runs
// are merged into one before the next is written, so that few files are open.
// Ownership: runs are files without a name in the folder for temporary files (TMPDIR): they vanish with the program. A
// source owns what it reads from; the texts that next() shows are valid until its next call.
// Threads: none inside.
// Errors: HostError with the system's reason when a run cannot be made, written or read; std::bad_alloc. One record
// that is larger than the block gets a larger block.
// Complexity: n log n; beyond the block each record is written and read once, and once more for every factor
// mostRunsCM of runs. Memory: the block; merging, also a buffer a run.
#pragma once

#include "host/base/FileDescriptor.h"
#include "host/diff/SortedRecord.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace nphost {

class RecordSorter {
  public:
    static constexpr std::size_t mostRunsCM = 64;

    explicit RecordSorter(std::size_t blockBytes);
    RecordSorter(RecordSorter const&) = delete;
    RecordSorter& operator=(RecordSorter const&) = delete;
    ~RecordSorter();

    void add(SortedRecord const& record);
    // All records in their order; nothing may be added any more.
    std::unique_ptr<RecordSource> finish();

  private:
    class Block;
    class BlockSource;

    void writeBlock();
    void keepRun(FileDescriptor run, std::size_t level);

    std::unique_ptr<Block> blockM;
    std::vector<std::vector<FileDescriptor>> runsM; // by how often their records were merged
};

} // namespace nphost
