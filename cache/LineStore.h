// DAT::NumberPortability::LineStore: lines of a file kept in memory, back to back in chunks.
//
// Purpose: a reload keeps the lines it read so that the second tree can be filled from them. A line may be of any
// length and hold any byte but a newline. Numbers of lines begin at 1.
// Ownership: owns the text; a visitor's view is valid during its call. The memory is that of the text and a byte a
// line, in chunks of chunkSizeCM; a line that no chunk holds has one of its own. What a chunk has left when a line does
// not fit any more stays unused.
// Threads: none inside. Errors: append throws std::bad_alloc and then changes nothing; what a visitor throws travels.
// Complexity: append linear in the line, consume in the text.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

namespace DAT::NumberPortability {

class LineStore {
  public:
    static constexpr std::size_t chunkSizeCM = 4UL * 1024 * 1024;

    void append(std::string_view line) {
        if (chunksM.empty() || chunksM.back().capacity - chunksM.back().size <= line.size())
            chunksM.emplace_back(std::max(line.size() + 1, chunkSizeCM));
        chunksM.back().append(line);
    }

    // Calls visitor(std::string_view line, unsigned long number) for every line in order. The memory of each chunk is
    // freed as soon as its lines were visited; the store is empty from the start, also when the visitor throws.
    template <class Visitor>
    void consume(Visitor&& visitor) {
        unsigned long number = 0;
        for (Chunk& chunk : std::exchange(chunksM, {}))
            Chunk(std::move(chunk)).visit(visitor, number);
    }

  private:
    // Lines, each with a newline behind it.
    struct Chunk {
        explicit Chunk(std::size_t bytesOfChunk)
            : bytes(std::make_unique_for_overwrite<char[]>(bytesOfChunk)), capacity(bytesOfChunk) {}

        void append(std::string_view line) {
            std::copy(line.begin(), line.end(), bytes.get() + size);
            size += line.size();
            bytes[size++] = '\n';
        }

        template <class Visitor>
        void visit(Visitor& visitor, unsigned long& number) const {
            std::string_view const text(bytes.get(), size);
            for (std::size_t begin = 0; begin < size;) {
                std::string_view const line = text.substr(begin, text.find('\n', begin) - begin);
                visitor(line, ++number);
                begin += line.size() + 1;
            }
        }

        std::unique_ptr<char[]> bytes;
        std::size_t capacity;
        std::size_t size = 0;
    };

    std::vector<Chunk> chunksM;
};

} // namespace DAT::NumberPortability
