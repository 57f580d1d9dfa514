#include "host/records/RecordInput.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"
#include "host/records/Compression.h"
#include "host/records/JsonReader.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <limits>
#include <utility>

namespace nphost {

namespace {

constexpr std::string_view byteOrderMarkCM = "\xef\xbb\xbf";

// No values are wanted of JSON: this reader only finds where records end.
std::unique_ptr<RecordReader> readerOf(RecordFormat const& format) {
    if (format.kind == RecordFormat::Kind::JSON)
        return std::make_unique<JsonReader>(std::vector<std::string>(), std::vector<std::string>());
    return std::make_unique<CsvReader>(format.csv);
}

// 0 as soon as one is unknown.
std::uint64_t sizeOf(std::vector<std::string> const& files) {
    std::uint64_t total = 0;
    for (std::string const& file : files) {
        std::error_code error;
        // Standard input may be a file, too, with a length.
        std::filesystem::path const path = file == "-" ? "/dev/stdin" : file;
        std::uintmax_t const size = std::filesystem::file_size(path, error);
        if (error)
            return 0;
        total += size;
    }
    return total;
}

// A position from 1; none for any other text.
std::optional<std::size_t> asPosition(std::string const& text, std::size_t count) {
    std::size_t position = 0;
    // It takes no sign and no blanks, so '+3' is no position; what is too large for a number is none either.
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), position);
    bool const whole = error == std::errc() && end == text.data() + text.size();
    return whole && position >= 1 && position <= count ? std::optional(position - 1) : std::nullopt;
}

std::string listOf(std::vector<std::string> const& names, std::size_t count) {
    std::string text;
    for (std::string const& name : names)
        text += (text.empty() ? "'" : ", '") + name + "'";
    std::string const positions = count == 0 ? "columns from 1 on" : "columns 1 to " + std::to_string(count);
    return names.empty() ? positions : shortened(text);
}

} // namespace

char separatorByName(std::string_view name) {
    name = withoutSuffix(name);
    return name.ends_with(".tsv") || name.ends_with(".tab") ? '\t' : ',';
}

RecordInput::RecordInput(std::vector<std::string> files, RecordFormat const& format)
    : filesM(std::move(files)), formatM(format), recordsM(readerOf(format)), totalM(sizeOf(filesM)) {
    for (std::string const& file : filesM)
        namesM.push_back(file == "-" ? "standard input" : visible(file));
}

void RecordInput::start() {
    // Without a stop: up to here a signal ends the process, for there are no temporary files yet.
    holdsFirstM = readBlock(firstM, nullptr);
}

bool RecordInput::next(InputBlock& block, std::atomic<bool> const& stop) {
    if (!holdsFirstM)
        return readBlock(block, &stop);
    holdsFirstM = false;
    // Swapped and not copied: a block is a megabyte.
    std::swap(block, firstM);
    return true;
}

bool RecordInput::openNext() {
    if (!seenRecordM)
        headerM.clear(); // of a file of blank lines
    if (sourceM != nullptr)
        doneBeforeM += sourceM->done();
    if (openedM == filesM.size())
        return false;
    blocksM.reset();
    // The reader has gone before its source goes: it refers to it.
    sourceM = std::make_unique<ByteSource>(filesM[openedM++]);
    blocksM = std::make_unique<BlockReader>(*sourceM, *recordsM);
    atFileStartM = true;
    return true;
}

bool RecordInput::readBlock(InputBlock& block, std::atomic<bool> const* stop) {
    for (bool taken = false; !taken;) {
        if (blocksM == nullptr && !openNext())
            return false;
        sourceM->stopWhen(stop);
        bool const more = blocksM->next(block.block);
        // The source counts its own file; the progress line is told of all of them.
        doneM.store(doneBeforeM + sourceM->done(), std::memory_order_relaxed);
        block.file = openedM - 1;
        if (!more)
            blocksM.reset();
        else
            taken = !atFileStartM || takeFirst(block);
    }
    RecordBlock::Piece const piece = block.block.piece();
    bool const endsRecord =
        piece == RecordBlock::Piece::LAST || (piece == RecordBlock::Piece::NONE && !block.block.text().empty());
    // Else the first record of the next file would be appended to its last line.
    block.lacksNewline = endsRecord && !block.block.text().ends_with('\n') && openedM < filesM.size();
    if (fieldCountM == 0 && formatM.kind == RecordFormat::Kind::CSV)
        countFields(block);
    block.fields = fieldCountM;
    return true;
}

Record RecordInput::firstRecord(InputBlock const& block) {
    Record record;
    recordsM->begin(block.block.text(), block.block.firstLine());
    recordsM->next(record);
    return record;
}

// Looks at the beginning of a file, and takes the header from it. False when there is nothing yet but blank lines
// before the header.
bool RecordInput::takeFirst(InputBlock& block) {
    // First is the first file that has a record: files of blank lines alone have no header.
    bool const isFirst = !seenRecordM;
    bool const isJson = formatM.kind == RecordFormat::Kind::JSON;
    // Only the first file's mark is kept: in the middle of the output it would be a character.
    if (isFirst && blocksM->hadByteOrderMark() && headerM.empty())
        headerM = byteOrderMarkCM;
    checkLineEnds(block);
    if (!isJson && formatM.header && !skipBlankLines(block))
        return false;
    atFileStartM = false;
    seenRecordM = true;
    if (isFirst) {
        firstFileM = block.file;
        hintM = hint(block.block.text());
    }
    if (!isJson && formatM.header)
        takeHeader(block, isFirst);
    return true;
}

// A file whose lines end in carriage returns alone would be one record, whatever its length.
void RecordInput::checkLineEnds(InputBlock const& block) const {
    std::string_view const text = block.block.text();
    if (text.find('\n') != std::string_view::npos)
        return;
    bool const isJson = formatM.kind == RecordFormat::Kind::JSON;
    bool quoted = false;
    for (std::size_t i = 0; i + 1 < text.size(); ++i) {
        // In quotation marks a carriage return may be part of a value.
        quoted ^= text[i] == '"' && formatM.csv.quotes && !isJson;
        bool const endsLine = text[i] == '\r' && (isJson ? i > 0 && text[i - 1] == '}' && text[i + 1] == '{' : !quoted);
        if (endsLine)
            throw HostError(nameOf(block.file) +
                            ": its lines end in carriage returns alone; make them newlines first (tr '\\r' '\\n')");
    }
}

// Those before a header stay before it. False when the block has no other.
bool RecordInput::skipBlankLines(InputBlock& block) {
    for (;;) {
        std::string_view const text = block.block.text();
        std::size_t const length = lineLength(text);
        std::string_view const line = text.substr(0, length == 0 ? text.size() : length);
        if (line.find_first_not_of(" \t\r\n") != std::string_view::npos)
            return true;
        if (!seenRecordM)
            headerM += line;
        block.block.dropFront(line.size(), 1);
        if (headerM.size() > BlockReader::blockSizeCM)
            throw HostError(nameOf(block.file) + ": there is no header in its first megabyte");
        if (block.block.text().empty())
            return false;
    }
}

// Of the first record that is one; those before it will be rejected.
void RecordInput::countFields(InputBlock const& block) {
    if (block.block.piece() != RecordBlock::Piece::NONE)
        return;
    recordsM->begin(block.block.text(), block.block.firstLine());
    for (Record record; fieldCountM == 0 && recordsM->next(record);)
        fieldCountM = record.values.size();
    if (fieldCountM > 0 && !farthestM.empty() && positionM >= fieldCountM)
        failColumn(farthestM);
}

void RecordInput::takeHeader(InputBlock& block, bool isFirst) {
    Record const record = firstRecord(block);
    bool const broken = record.problem != Problem::NONE || block.block.piece() != RecordBlock::Piece::NONE;
    if (broken)
        throw HostError(nameOf(block.file) + ":" + std::to_string(record.line) +
                        ": the header cannot be read: its quotation marks do not match, or it is "
                        "longer than a megabyte" +
                        hint(block.block.text()));
    if (isFirst)
        keepHeader(record);
    else
        checkHeader(record, block.file);
    std::string_view const text = record.text;
    auto const lines = static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    block.block.dropFront(text.size() + record.lineEnd.size(), lines);
}

void RecordInput::keepHeader(Record const& record) {
    fieldCountM = record.values.size();
    headerLineM = record.line;
    headerM += record.text;
    // A header that is the whole file has no line end; the output needs one.
    headerEndM = record.lineEnd.empty() ? "\n" : record.lineEnd;
    // Copied: the values end with their block.
    for (std::string_view const column : record.values)
        columnsM.emplace_back(column);
}

std::string RecordInput::hint(std::string_view text) const {
    return trimmed(text.substr(0, shownBytesCM)).starts_with('{') ? std::string(formatM.jsonHint) : std::string();
}

// The header's names come first: a column may be called "3".
std::size_t RecordInput::positionOf(std::string const& column) {
    auto const named = std::find(columnsM.begin(), columnsM.end(), column);
    if (named != columnsM.end() && std::find(named + 1, columnsM.end(), column) != columnsM.end())
        throw HostError(headerPlace() + ": two columns are called '" + shortened(column) +
                        "'; give the position, from 1, instead");
    if (named != columnsM.end())
        return static_cast<std::size_t>(named - columnsM.begin());
    // While no record could be read, any position may be one: countFields looks again at the farthest.
    constexpr std::size_t any = std::numeric_limits<std::size_t>::max();
    std::optional<std::size_t> const position = asPosition(column, fieldCountM > 0 ? fieldCountM : any);
    if (!position)
        failColumn(column);
    if (farthestM.empty() || *position > positionM) {
        farthestM = column;
        positionM = *position;
    }
    return *position;
}

std::string RecordInput::headerPlace() const {
    return firstFile() + ":" + std::to_string(headerLineM);
}

void RecordInput::failColumn(std::string const& column) const {
    throw HostError(headerPlace() + ": there is no column '" + shortened(column) + "'; there are " +
                    listOf(columnsM, fieldCountM) + (fieldCountM == 1 ? "; is the separator right?" : "") + hintM);
}

// By their names and not their bytes: one file may quote them and another not.
void RecordInput::checkHeader(Record const& record, std::size_t file) const {
    if (!std::equal(record.values.begin(), record.values.end(), columnsM.begin(), columnsM.end()))
        throw HostError(nameOf(file) + ":" + std::to_string(record.line) + ": the header is not the same as that of " +
                        firstFile());
}

} // namespace nphost
