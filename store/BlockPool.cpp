#include "store/BlockPool.h"

#include "store/HugePages.h"

#include <algorithm>

namespace DAT::NumberPortability {

using PBC::HugePages::pageCM;

BlockPool::Chunk* BlockPool::chunkOf(void* block) {
    return reinterpret_cast<Chunk*>(static_cast<char*>(block) - reinterpret_cast<std::uintptr_t>(block) % pageCM);
}

void* BlockPool::allocateNew(std::size_t bytes) {
    if (bytes > largestCM)
        return addChunk(PBC::HugePages::rounded(std::max(bytes + sizeof(Chunk), pageCM)), false) + 1;
    if (freeM.size() <= bytes / unitCM)
        freeM.resize(bytes / unitCM + 1);
    if (static_cast<std::size_t>(endM - nextM) < bytes) {
        // The first chunk may stay nearly empty; its pages come one by one.
        Chunk* const chunk = addChunk(pageCM, chunksM != nullptr);
        nextM = reinterpret_cast<char*>(chunk + 1);
        endM = reinterpret_cast<char*>(chunk) + pageCM;
    }
    void* const block = nextM;
    nextM += bytes;
    return block;
}

void BlockPool::release(void* block, std::size_t bytes) noexcept {
    if (bytes > largestCM)
        return removeChunk(chunkOf(block));
    auto* const free = static_cast<Free*>(block);
    free->next = freeM[bytes / unitCM];
    freeM[bytes / unitCM] = free;
}

BlockPool::Chunk* BlockPool::addChunk(std::size_t bytes, bool huge) {
    auto* const chunk = static_cast<Chunk*>(PBC::HugePages::mapAligned(bytes, huge));
    *chunk = {this, chunksM, nullptr, bytes};
    if (chunksM != nullptr)
        chunksM->before = chunk;
    chunksM = chunk;
    return chunk;
}

void BlockPool::removeChunk(Chunk* chunk) noexcept {
    if (chunk->next != nullptr)
        chunk->next->before = chunk->before;
    (chunk->before != nullptr ? chunk->before->next : chunksM) = chunk->next;
    PBC::HugePages::unmap(chunk, chunk->bytes);
}

void BlockPool::clear() noexcept {
    while (chunksM != nullptr)
        removeChunk(chunksM);
    freeM.clear();
    nextM = endM = nullptr;
}

std::size_t BlockPool::bytes() const {
    std::size_t sum = 0;
    for (Chunk const* chunk = chunksM; chunk != nullptr; chunk = chunk->next)
        sum += chunk->bytes;
    return sum - static_cast<std::size_t>(endM - nextM);
}

} // namespace DAT::NumberPortability
