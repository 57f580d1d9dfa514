// nphost::LoadedFront: a front that is a shared object, loaded when it is configured.
//
// Purpose: finds the object's table (service/Front.h), refuses one of another version, and makes the front.
// Ownership: owns front and mapping; the front goes first. What the parts refer to must outlive it.
// Threads: the loop's. Errors: construction throws HostError in one line.
// Complexity: that of the system's loader.
#pragma once

#include "host/base/SharedObject.h"
#include "host/service/Front.h"

#include <filesystem>
#include <memory>

namespace nphost {

class LoadedFront {
  public:
    LoadedFront(std::filesystem::path const& file, FrontParts const& parts);

    Front& operator*() const { return *frontM; }
    Front* operator->() const { return frontM.get(); }

  private:
    SharedObject objectM;
    std::unique_ptr<Front, void (*)(Front*)> frontM;
};

} // namespace nphost
