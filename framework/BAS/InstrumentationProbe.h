// BAS::InstrumentationProbe: base of everything that the instrumentation facility shows, and the list of probes.
//
// Purpose: a probe has a name and a description; an operator finds it by its name.
// Ownership: a probe owns its texts; a list borrows its probes.
// Threads: name and description never change; a list belongs to one thread.
// Errors: std::bad_alloc. Complexity: constant.
#pragma once

#include "framework/BAS/String.h"

namespace BAS {

class InstrumentationProbe {
  public:
    // What the probe definition file says of a probe; empty texts are the default description.
    struct ProbeInfo {
        String name;
        String description;
    };

    // The number is the version of the description, which nobody asks for; the module passes 1.
    InstrumentationProbe(ProbeInfo const& info, int) : infoM(info) {}
    InstrumentationProbe(InstrumentationProbe const&) = delete;
    InstrumentationProbe& operator=(InstrumentationProbe const&) = delete;
    virtual ~InstrumentationProbe() = default;

    String const& name() const { return infoM.name; }
    String const& description() const { return infoM.description; }

  private:
    ProbeInfo infoM;
};

class InstrumentationProbeList {
  public:
    void append(InstrumentationProbe* probe) { probesM.append(probe); }
    std::size_t length() const { return probesM.length(); }
    InstrumentationProbe* operator[](std::size_t position) const { return probesM[position]; }

  private:
    RWTValOrderedVector<InstrumentationProbe*> probesM;
};

} // namespace BAS
