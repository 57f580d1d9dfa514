// DAT::NumberPortability::BlockPool: memory for histories and their arrays, by size.
//
// Purpose: millions of small blocks without the general allocator's overhead for each, given back all at once. A block
// knows its pool by its address, so that a history of 16 bytes need not say which one its array comes from.
// Units and ranges: sizes in bytes, multiples of unitCM; blocks lie on multiples of unitCM.
// Ownership: owns all blocks. Destruction and clear give their memory back, without destroying what is in them.
// Threads: none inside.
// Errors: allocate throws std::bad_alloc, after which everything is as before. release never fails.
// Complexity: constant, but for blocks over largestCM, which are mapped and unmapped one by one.
//
// How: blocks are cut from chunks of 2 MiB that lie on multiples of 2 MiB and begin with a pointer to the pool. A block
// over largestCM has a chunk of its own, of as many times 2 MiB as it takes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace DAT::NumberPortability {

class BlockPool {
  public:
    static constexpr std::size_t unitCM = 16;
    static constexpr std::size_t largestCM = 32UL * 1024;

    BlockPool() = default;
    BlockPool(BlockPool const&) = delete;
    BlockPool& operator=(BlockPool const&) = delete;
    ~BlockPool() { clear(); }

    void* allocate(std::size_t bytes) {
        std::size_t const index = bytes / unitCM;
        if (index < freeM.size() && freeM[index] != nullptr) {
            Free* const block = freeM[index];
            freeM[index] = block->next;
            return block;
        }
        return allocateNew(bytes);
    }
    // `bytes` as at its allocation.
    void release(void* block, std::size_t bytes) noexcept;

    // The pool of a block.
    static BlockPool& of(void* block) { return *chunkOf(block)->pool; }

    void clear() noexcept;

    // Bytes of chunks that hold or held something.
    std::size_t bytes() const;

  private:
    struct Free {
        Free* next;
    };
    struct alignas(unitCM) Chunk {
        BlockPool* pool;
        Chunk* next;
        Chunk* before;
        std::size_t bytes;
    };

    static Chunk* chunkOf(void* block);
    void* allocateNew(std::size_t bytes);
    Chunk* addChunk(std::size_t bytes, bool huge);
    void removeChunk(Chunk* chunk) noexcept;

    std::vector<Free*> freeM; // by size in units; long enough for every size handed out
    Chunk* chunksM = nullptr;
    char* nextM = nullptr; // what is left of the chunk that blocks are cut from
    char* endM = nullptr;
};

} // namespace DAT::NumberPortability
