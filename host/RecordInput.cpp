#include "host/RecordInput.h"

#include "host/Compression.h"
#include "host/HostError.h"
#include "host/JsonReader.h"
#include "host/Text.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <utility>

namespace nphost {

namespace {

constexpr std::string_view byteOrderMarkCM = "\xef\xbb\xbf";

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
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), position);
    bool const whole = error == std::errc() && end == text.data() + text.size();
    return whole && position >= 1 && position <= count ? std::optional(position - 1) : std::nullopt;
}

std::string listOf(std::vector<std::string> const& names, std::size_t count) {
    std::string text;
    for (std::string const& name : names)
        text += (text.empty() ? "'" : ", '") + name + "'";
    return names.empty() ? "columns 1 to " + std::to_string(count) : shortened(text);
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
    holdsFirstM = readBlock(firstM, nullptr);
}

bool RecordInput::next(InputBlock& block, std::atomic<bool> const& stop) {
    if (!holdsFirstM)
        return readBlock(block, &stop);
    holdsFirstM = false;
    std::swap(block, firstM);
    return true;
}

bool RecordInput::openNext() {
    if (sourceM != nullptr)
        doneBeforeM += sourceM->done();
    if (openedM == filesM.size())
        return false;
    blocksM.reset();
    sourceM = std::make_unique<ByteSource>(filesM[openedM++]);
    blocksM = std::make_unique<BlockReader>(*sourceM, *recordsM);
    atFileStartM = true;
    return true;
}

bool RecordInput::readBlock(InputBlock& block, std::atomic<bool> const* stop) {
    for (;;) {
        if (blocksM == nullptr && !openNext())
            return false;
        sourceM->stopWhen(stop);
        bool const more = blocksM->next(block.block);
        doneM.store(doneBeforeM + sourceM->done(), std::memory_order_relaxed);
        if (more)
            break;
        blocksM.reset();
    }
    block.file = openedM - 1;
    block.lacksNewline =
        !block.block.text().ends_with('\n') && openedM < filesM.size() &&
        (block.block.piece() == RecordBlock::Piece::NONE || block.block.piece() == RecordBlock::Piece::LAST);
    if (std::exchange(atFileStartM, false))
        takeFirst(block);
    return true;
}

Record RecordInput::firstRecord(InputBlock const& block) {
    Record record;
    recordsM->begin(block.block.text(), block.block.firstLine());
    recordsM->next(record);
    return record;
}

// Looks at the beginning of a file, and takes the header from it.
void RecordInput::takeFirst(InputBlock& block) {
    bool const isFirst = !std::exchange(seenRecordM, true);
    if (isFirst && blocksM->hadByteOrderMark())
        headerM = byteOrderMarkCM;
    if (isFirst) {
        firstFileM = block.file;
        hintM = hint(block.block.text());
    }
    if (formatM.kind == RecordFormat::Kind::JSON)
        return;
    if (formatM.header)
        takeHeader(block, isFirst);
    else if (isFirst)
        countFields(block);
}

// Of the first record that is one; those before it will be rejected.
void RecordInput::countFields(InputBlock const& block) {
    bool broken = block.block.piece() != RecordBlock::Piece::NONE;
    recordsM->begin(block.block.text(), block.block.firstLine());
    for (Record record; fieldCountM == 0 && !broken && recordsM->next(record);)
        fieldCountM = record.values.size();
    broken = broken || block.block.text().find_first_not_of("\r\n") != std::string_view::npos;
    if (fieldCountM == 0 && broken)
        throw HostError(nameOf(block.file) + ": no record at its beginning can be read" + hintM);
}

void RecordInput::takeHeader(InputBlock& block, bool isFirst) {
    Record const record = firstRecord(block);
    bool const broken = record.problem != Problem::NONE || block.block.piece() != RecordBlock::Piece::NONE;
    if (broken)
        throw HostError(nameOf(block.file) +
                        ":1: the header cannot be read: its quotation marks do not match, or it is "
                        "longer than a megabyte" +
                        hint(block.block.text()));
    if (isFirst)
        keepHeader(record, block.file);
    else
        checkHeader(record, block.file);
    std::string_view const text = record.text;
    auto const lines = static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    block.block.dropFront(text.size() + record.lineEnd.size(), lines);
    block.lacksNewline = block.lacksNewline && !block.block.text().empty();
}

void RecordInput::keepHeader(Record const& record, std::size_t file) {
    if (record.values.empty())
        throw HostError(nameOf(file) + ":1: the header is empty");
    fieldCountM = record.values.size();
    headerTextM = record.text;
    headerM += record.text;
    headerEndM = record.lineEnd.empty() ? "\n" : record.lineEnd;
    for (std::string_view const column : record.values)
        columnsM.emplace_back(column);
}

std::string RecordInput::hint(std::string_view text) const {
    return trimmed(text.substr(0, shownBytesCM)).starts_with('{') ? std::string(formatM.jsonHint) : std::string();
}

// The header's names come first: a column may be called "3".
std::size_t RecordInput::positionOf(std::string const& column) const {
    auto const named = std::find(columnsM.begin(), columnsM.end(), column);
    if (named != columnsM.end() && std::find(named + 1, columnsM.end(), column) != columnsM.end())
        throw HostError(firstFile() + ":1: two columns are called '" + shortened(column) +
                        "'; give the position, from 1, instead");
    if (named != columnsM.end())
        return static_cast<std::size_t>(named - columnsM.begin());
    if (std::optional<std::size_t> const position = asPosition(column, fieldCountM))
        return *position;
    throw HostError(firstFile() + ":1: there is no column '" + shortened(column) + "'; there are " +
                    listOf(columnsM, fieldCountM) + (fieldCountM == 1 ? "; is the separator right?" : "") + hintM);
}

void RecordInput::checkHeader(Record const& record, std::size_t file) const {
    if (record.text != headerTextM)
        throw HostError(nameOf(file) + ":1: the header is not the same as that of " + firstFile());
}

} // namespace nphost
