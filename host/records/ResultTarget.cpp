#include "host/records/ResultTarget.h"

#include "host/base/HostError.h"
#include "host/base/StandardError.h"
#include "host/base/Text.h"
#include "host/base/Waiting.h"

#include <algorithm>
#include <array>
#include <system_error>

namespace nphost {

bool isStandardOutput(std::string_view name) {
    // By name: a file of any other name that happens to be standard output is refused elsewhere (FileRoles.h).
    constexpr std::array<std::string_view, 4> names = {"-", "/dev/stdout", "/dev/fd/1", "/proc/self/fd/1"};
    return std::find(names.begin(), names.end(), name) != names.end();
}

std::optional<std::string> fileOf(std::optional<std::string> const& name) {
    return name && !isStandardOutput(*name) ? name : std::nullopt;
}

ResultTarget::ResultTarget(std::optional<std::string> const& file) : nameM(file ? visible(*file) : "standard output") {
    if (!file)
        return;
    fileM = std::make_unique<STR::FileIo>(BAS::String(*file), std::ios_base::out);
    if (!fileM->isOpen())
        fail();
    // A pipe or a device is written as it is, by the calls that a signal ends.
    descriptorM = fileM->descriptorInPlace();
}

ResultTarget::~ResultTarget() {
    if (fileM != nullptr)
        // A target that was finished has nothing left to discard.
        fileM->discardFile();
}

void ResultTarget::fail() const {
    throw HostError(nameM + " cannot be written: " + fileM->failure().str());
}

void ResultTarget::write(std::string_view text) {
    if (descriptorM >= 0) {
        if (int const error = writeWaiting(descriptorM, text); error != 0)
            throw HostError(nameM + " cannot be written: " + std::system_category().message(error));
        return;
    }
    fileM->stream().write(text.data(), static_cast<std::streamsize>(text.size()));
    // The stream only knows that it failed; closing tells why.
    if (!fileM->stream().good() && !fileM->closeFile())
        fail();
}

void ResultTarget::sync() {
    // A file that could not be synced keeps the failure, and closing it fails for that reason.
    if (fileM != nullptr && !fileM->syncFile() && !fileM->closeFile())
        fail();
}

void ResultTarget::finish() {
    if (fileM != nullptr && !fileM->closeFile())
        fail();
}

void PieceTarget::write() {
    if (bufferM.empty())
        return;
    targetM.write(compressorM.compress(bufferM, placeM));
    writtenM = true;
    bufferM.clear();
}

void PieceTarget::sync() {
    write();
    // Without a text there is still a member or frame: an empty file would be damaged to those who decompress it.
    if (!writtenM)
        targetM.write(compressorM.compress({}, placeM));
    targetM.sync();
}

void writeSummary(std::string const& object, bool outputHasRecords) {
    if (!outputHasRecords)
        ResultTarget(std::nullopt).write(object);
    else if (!StandardError::write(object))
        throw HostError("standard error cannot be written");
}

} // namespace nphost
