#include "host/records/BlockReader.h"

#include "host/base/HostError.h"

#include <algorithm>
#include <cstring>

namespace nphost {

namespace {

// The length of a piece: a carriage return at its end stays with what follows, which may be its newline.
std::size_t withoutReturn(std::string_view text) {
    return text.size() - (text.ends_with('\r') ? 1 : 0);
}

} // namespace

bool BlockReader::next(RecordBlock& block) {
    // What was cut off behind the last record begins this block. It is never larger: it came out of one of the same
    // capacity.
    std::memcpy(block.bytesM.get(), restM.data(), restM.size());
    block.beginM = 0;
    block.endM = restM.size();
    block.firstLineM = lineM;
    block.pieceM = RecordBlock::Piece::NONE;
    restM.clear();
    fill(block);
    std::string_view const text = block.text();
    lineM += static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
    // An empty last piece is handed over, too: it ends the record whose other pieces have gone before.
    return !text.empty() || block.pieceM == RecordBlock::Piece::LAST;
}

// Reads until the block holds a whole record and is full or would wait, or holds a piece of a long line.
void BlockReader::fill(RecordBlock& block) {
    for (;;) {
        bool const full = block.endM == block.capacityM;
        // Goes on while there is room and nobody need be waited for: records of a pipe are handed over before it waits.
        if (!full && readMore(block) && block.endM < block.capacityM && !sourceM.mayWait())
            continue;
        std::string_view const text = block.text();
        std::size_t const length =
            inPiecesM ? pieceLength(text, block) : wholeLength(text, block.endM == block.capacityM);
        if (length > 0 || atEndM)
            return keepRest(block, length);
        if (block.endM == block.capacityM) {
            // The block is full and holds no line's end: from here on the line comes in pieces.
            inPiecesM = true;
            block.pieceM = RecordBlock::Piece::FIRST;
            return keepRest(block, withoutReturn(text));
        }
    }
}

bool BlockReader::readMore(RecordBlock& block) {
    std::size_t const count = sourceM.read({block.bytesM.get() + block.endM, block.capacityM - block.endM});
    block.endM += count;
    atEndM = count == 0;
    // A pipe may give single bytes: the mark is looked for when it can be there as a whole.
    if (!startedM && (atEndM || block.endM >= 3)) {
        startedM = true;
        takeByteOrderMark(block);
    }
    return !atEndM;
}

void BlockReader::takeByteOrderMark(RecordBlock& block) {
    std::string_view const text = block.text();
    // Its ASCII characters have a NUL each: everything would be rejected, and nobody told why.
    if (text.starts_with("\xff\xfe") || text.starts_with("\xfe\xff"))
        throw HostError(sourceM.name() + ": the file is UTF-16; convert it to UTF-8 first");
    byteOrderMarkM = text.starts_with("\xef\xbb\xbf");
    block.beginM += byteOrderMarkM ? 3 : 0;
}

// At the end of the file what is left counts as whole: a last line may lack its newline.
std::size_t BlockReader::wholeLength(std::string_view text, bool full) {
    if (atEndM)
        return text.size();
    std::size_t const whole = recordsM.wholeRecords(text);
    // A record of many lines that fills a block must be broken, and then its first line is a record.
    return whole == 0 && full ? lineLength(text) : whole;
}

std::size_t BlockReader::pieceLength(std::string_view text, RecordBlock& block) {
    std::size_t const line = lineLength(text);
    inPiecesM = line == 0 && !atEndM;
    block.pieceM = inPiecesM ? RecordBlock::Piece::MIDDLE : RecordBlock::Piece::LAST;
    if (line > 0)
        return line;
    return atEndM ? text.size() : withoutReturn(text);
}

void BlockReader::keepRest(RecordBlock& block, std::size_t length) {
    std::string_view const rest = block.text().substr(length);
    // Copied out, for the block goes to another thread while the next one is read.
    restM.assign(rest);
    block.endM -= rest.size();
}

} // namespace nphost
