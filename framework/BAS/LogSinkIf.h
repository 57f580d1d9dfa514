// BAS::LogSinkIf: where the host receives the log.
//
// Purpose: the host implements it and installs it with BAS::RegisteredObject::installLogSink; every report of every
// object and of the framework itself is handed to it, one at a time.
// Ownership: the host's; it must outlive its installation.
// Threads: write runs on the reporting thread, under the framework's status lock, so calls never overlap; it must
// not report itself and should not wait.
// Errors: write must not throw.
#pragma once

#include "framework/BAS/Status.h"

namespace BAS {

class LogSinkIf {
  public:
    virtual ~LogSinkIf() = default;
    virtual void write(Status const& status) noexcept = 0;
};

} // namespace BAS
