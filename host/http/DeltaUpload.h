// nphost::DeltaUpload and DeltaSink: the records of a delta that come as the body of a request.
//
// Purpose: they go into a file in the folder of deltas while they come in, and the daemon is then commanded to load it.
// Ownership: DeltaUpload owns the file, and removes it when the command has ended or nobody waits for it any more.
// Threads: one at a time.
// Errors: construction throws HostError; what goes wrong while the body comes in is the request's answer.
// Complexity: a write a piece.
#pragma once

#include "host/base/FileDescriptor.h"
#include "host/http/Api.h"

#include <filesystem>
#include <memory>
#include <string>

namespace nphost {

class DeltaUpload {
  public:
    explicit DeltaUpload(std::filesystem::path const& folder);
    DeltaUpload(DeltaUpload const&) = delete;
    DeltaUpload& operator=(DeltaUpload const&) = delete;
    ~DeltaUpload();

    // Removes and reports what killed processes have left there.
    static void removeLeftovers(std::filesystem::path const& folder);

    std::filesystem::path const& name() const { return nameM; }
    // 0, or what the system says.
    int write(std::string_view text);

  private:
    std::filesystem::path nameM;
    FileDescriptor descriptorM;
};

class DeltaSink : public BodySink {
  public:
    DeltaSink(std::shared_ptr<DeltaUpload> file, std::string command, std::uint64_t mostBytes)
        : fileM(std::move(file)), commandM(std::move(command)), mostBytesM(mostBytes) {}

    std::uint64_t mostBytes() const override { return mostBytesM; }
    bool take(std::string_view piece, std::string& out) override;
    Step end(std::string& out) override;

  private:
    std::shared_ptr<DeltaUpload> fileM;
    std::string commandM;
    std::uint64_t mostBytesM;
    std::uint64_t bytesM = 0;
    int errorM = 0;
};

} // namespace nphost
