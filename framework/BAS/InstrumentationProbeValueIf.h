// BAS::InstrumentationProbeValueIf: the value behind a probe, implemented by whoever serves it.
//
// Purpose: an operator reads a probe through getValue and writes it through setValue.
// Ownership: owned by the attribute that it is given to.
// Threads: called on the thread that reads or writes the probe; an implementation must allow several at once.
// Errors: both return false when there is no such access; the texts' std::bad_alloc travels.
// Complexity: the implementation's.
#pragma once

#include "framework/BAS/String.h"

namespace BAS {

class InstrumentationProbeValueIf {
  public:
    InstrumentationProbeValueIf() = default;
    InstrumentationProbeValueIf(InstrumentationProbeValueIf const&) = delete;
    InstrumentationProbeValueIf& operator=(InstrumentationProbeValueIf const&) = delete;
    virtual ~InstrumentationProbeValueIf() = default;

    // Default: nothing to read; `value` stays. `refresh` asks for a newly measured value.
    virtual bool getValue(String& value, bool refresh) const;
    virtual bool setValue(String const& value) = 0;
};

} // namespace BAS
