#include "host/diff/RecordRun.h"

#include "host/base/HostError.h"
#include "host/base/Waiting.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <system_error>
#include <utility>

namespace nphost {

namespace {

// Every run that is merged has a buffer of its own, so it is not larger.
constexpr std::size_t bufferBytesCM = 128UL * 1024;

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
    // At once: even a kill leaves nothing behind.
    unlink(name.c_str());
    return file;
}

} // namespace

RunWriter::RunWriter() : fileM(temporaryFile()) {
    bufferM.reserve(bufferBytesCM);
}

void RunWriter::write(SortedRecord const& record) {
    PackedRecord entry = packed(record);
    // In a run it is only yes or no: the texts follow.
    entry.texts = hasTexts(record) ? 1 : 0;
    append(&entry, sizeof entry);
    if (entry.texts == 0)
        return;
    TextLengths const lengths = {record.tail.size(), record.text.size()};
    append(&lengths, sizeof lengths);
    append(record.tail.data(), record.tail.size());
    append(record.text.data(), record.text.size());
}

FileDescriptor RunWriter::finish() {
    writeOut({bufferM.data(), bufferM.size()});
    // By the same descriptor: a file without a name cannot be opened again.
    if (lseek(fileM.get(), 0, SEEK_SET) != 0)
        failed("cannot use a temporary file");
    return std::move(fileM);
}

void RunWriter::append(void const* bytes, std::size_t count) {
    if (count > bufferBytesCM - bufferM.size()) {
        writeOut({bufferM.data(), bufferM.size()});
        bufferM.clear();
    }
    auto const* const begin = static_cast<char const*>(bytes);
    // A text that is longer than the buffer goes past it.
    if (count > bufferBytesCM)
        return writeOut({begin, count});
    bufferM.insert(bufferM.end(), begin, begin + count);
}

void RunWriter::writeOut(std::string_view bytes) const {
    if (writeWhole(fileM.get(), bytes) != bytes.size())
        failed("cannot write a temporary file");
}

RunSource::RunSource(FileDescriptor file) : fileM(std::move(file)), bufferM(bufferBytesCM) {}

bool RunSource::next(SortedRecord& record) {
    if (!has(sizeof(PackedRecord)))
        return false;
    PackedRecord entry;
    // Copied: behind texts of any length the next entry is not aligned.
    std::memcpy(&entry, take(sizeof entry), sizeof entry);
    record = unpacked(entry);
    if (entry.texts != 0)
        readTexts(record);
    return true;
}

// Both lie in a row in the buffer, so views of them hold until the next record.
void RunSource::readTexts(SortedRecord& record) {
    TextLengths lengths;
    need(sizeof lengths);
    std::memcpy(&lengths, take(sizeof lengths), sizeof lengths);
    need(lengths.tail + lengths.text);
    char const* const texts = take(lengths.tail + lengths.text);
    record.tail = {texts, lengths.tail};
    record.text = {texts + lengths.tail, lengths.text};
}

char const* RunSource::take(std::size_t count) {
    beginM += count;
    return bufferM.data() + beginM - count;
}

void RunSource::need(std::size_t count) {
    if (!has(count))
        throw HostError("a temporary file ended too early");
}

// Whether there are so many bytes; they then lie in a row.
bool RunSource::has(std::size_t count) {
    if (endM - beginM >= count)
        return true;
    std::memmove(bufferM.data(), bufferM.data() + beginM, endM - beginM);
    endM -= beginM;
    beginM = 0;
    // A text may be longer than the buffer, which then stays as long.
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

} // namespace nphost
