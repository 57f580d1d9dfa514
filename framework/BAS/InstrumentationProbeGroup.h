// BAS::InstrumentationProbeGroup: a named group of probes, and its base, the collection of probes.
//
// Purpose: what an object hands to the framework so that its probes can be found.
// Ownership: a collection owns the attributes that were appended.
// Threads: filled by one thread before others see it; const use is safe from any thread.
// Errors: append throws std::bad_alloc and then has taken nothing over. Complexity: constant; find is linear.
#pragma once

#include "framework/BAS/InstrumentationProbeAttribute.h"

#include <memory>
#include <vector>

namespace BAS {

class InstrumentationProbeCollection : public InstrumentationProbe {
  public:
    using InstrumentationProbe::InstrumentationProbe;

    void append(InstrumentationProbeAttribute* attribute) {
        attributesM.reserve(attributesM.size() + 1);
        attributesM.emplace_back(attribute);
    }
    std::size_t length() const { return attributesM.size(); }
    InstrumentationProbeAttribute* operator[](std::size_t position) const { return attributesM.at(position).get(); }

  private:
    std::vector<std::unique_ptr<InstrumentationProbeAttribute>> attributesM;
};

class InstrumentationProbeGroup : public InstrumentationProbeCollection {
  public:
    using InstrumentationProbeCollection::InstrumentationProbeCollection;
};

} // namespace BAS
