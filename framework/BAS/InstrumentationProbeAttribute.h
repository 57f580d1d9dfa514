// BAS::InstrumentationProbeAttribute: a probe with a value.
//
// Purpose: the probe that an operator reads and writes. Its value object does the work.
// Ownership: owns its value object.
// Threads and errors: those of the value object. Complexity: constant.
#pragma once

#include "framework/BAS/InstrumentationProbe.h"
#include "framework/BAS/InstrumentationProbeValueIf.h"

#include <memory>

namespace BAS {

class InstrumentationProbeAttribute : public InstrumentationProbe {
  public:
    InstrumentationProbeAttribute(ProbeInfo const& info, InstrumentationProbeValueIf* value, int version)
        : InstrumentationProbe(info, version), valueM(value) {}

    bool getValue(String& value, bool refresh) const { return valueM->getValue(value, refresh); }
    bool setValue(String const& value) { return valueM->setValue(value); }

  private:
    std::unique_ptr<InstrumentationProbeValueIf> valueM;
};

} // namespace BAS
