// BAS::RegistryEntry: one entry of the framework's hierarchical registry: a name, a value, children in order.
//
// Purpose: an object's start-up configuration and the keys of a run-time update.
// Ownership: an entry owns its children. What find returns stays valid as long as the entry and until the next append.
// Threads: none inside; concurrent const use is safe.
// Errors: append throws std::bad_alloc; find returns null for a name that is not there.
// Complexity: find is linear in the number of children.
#pragma once

#include "framework/BAS/String.h"

#include <vector>

namespace BAS {

class RegistryEntry {
  public:
    explicit RegistryEntry(String name, String value = String()) : nameM(std::move(name)), valueM(std::move(value)) {}

    String const& value() const { return valueM; }
    void value(String value) { valueM = std::move(value); }

    // The child of that name, matched exactly; the first where there are several.
    RegistryEntry const* find(String const& name) const {
        for (RegistryEntry const& child : childrenM)
            if (child.nameM == name)
                return &child;
        return nullptr;
    }
    RegistryEntry* find(String const& name) {
        return const_cast<RegistryEntry*>(static_cast<RegistryEntry const*>(this)->find(name));
    }

    RegistryEntry& append(RegistryEntry child) { return childrenM.emplace_back(std::move(child)); }

  private:
    String nameM;
    String valueM;
    std::vector<RegistryEntry> childrenM;
};

} // namespace BAS
