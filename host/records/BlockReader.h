// nphost::BlockReader: cuts what a source gives into blocks of whole records.
//
// Purpose: blocks can be worked on by many threads, each on its own; one after the other they are the file, byte by
// byte, but for a UTF-8 byte order mark at its beginning. A block is handed over when it is full, at the end of the
// file, and when the source would wait: records of a pipe do not wait for those that are still to come.
// - A line that is longer than a block comes as pieces: blocks of one piece each, of no whole record.
// Units: a block holds at most its capacity; line numbers count from 1.
// Ownership: borrows source and reader of records, which finds where they end. A block owns its bytes and is used
// again.
// Threads: one thread at a time.
// Errors: what the source throws; HostError for a file in UTF-16; std::bad_alloc.
// Complexity: linear in the bytes; memory of one block besides those of the caller.
#pragma once

#include "host/records/ByteSource.h"
#include "host/records/Record.h"

#include <memory>
#include <string>

namespace nphost {

class RecordBlock {
  public:
    // Of a line longer than a block: NONE is a block of whole records.
    enum class Piece { NONE, FIRST, MIDDLE, LAST };

    explicit RecordBlock(std::size_t capacity)
        : bytesM(std::make_unique_for_overwrite<char[]>(capacity + RecordReader::paddingCM)), capacityM(capacity) {}

    std::string_view text() const { return {bytesM.get() + beginM, endM - beginM}; }
    std::uint64_t firstLine() const { return firstLineM; }
    Piece piece() const { return pieceM; }

    // Takes `length` bytes, which are one record of `lines` lines, from the front.
    void dropFront(std::size_t length, std::uint64_t lines) {
        beginM += length;
        firstLineM += lines;
    }

  private:
    friend class BlockReader;

    std::unique_ptr<char[]> bytesM; // with padding, whose bytes are never looked at
    std::size_t capacityM;
    std::size_t beginM = 0;
    std::size_t endM = 0;
    std::uint64_t firstLineM = 1;
    Piece pieceM = Piece::NONE;
};

class BlockReader {
  public:
    static constexpr std::size_t blockSizeCM = 1UL << 20U;

    BlockReader(ByteSource& source, RecordReader& records) : sourceM(source), recordsM(records) {}
    BlockReader(BlockReader const&) = delete;
    BlockReader& operator=(BlockReader const&) = delete;

    // False at the end of the source; blocks have the same capacity at every call.
    bool next(RecordBlock& block);

    // Whether the file began with a byte order mark; known with the first block.
    bool hadByteOrderMark() const { return byteOrderMarkM; }

  private:
    void fill(RecordBlock& block);
    bool readMore(RecordBlock& block);
    void takeByteOrderMark(RecordBlock& block);
    std::size_t wholeLength(std::string_view text, bool full);
    std::size_t pieceLength(std::string_view text, RecordBlock& block);
    void keepRest(RecordBlock& block, std::size_t length);

    ByteSource& sourceM;
    RecordReader& recordsM;
    std::string restM; // read already, and for the next block
    std::uint64_t lineM = 1;
    bool startedM = false;
    bool atEndM = false;
    bool inPiecesM = false; // in a line that is longer than a block
    bool byteOrderMarkM = false;
};

} // namespace nphost
