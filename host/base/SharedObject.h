// nphost::SharedObject: one shared object that the host has loaded.
//
// Purpose: what the module and the client modules have in common: loading, finding a function, unloading.
// Ownership: owns one reference to the mapping; a function found in it must not be called after its destruction.
// Threads: construction and destruction by one thread; the rest by any.
// Errors: construction throws HostError with the system's reason, in one line; std::bad_alloc.
// Complexity: that of the system's loader.
#pragma once

#include <filesystem>
#include <memory>

namespace nphost {

class SharedObject {
  public:
    // A name without a slash is searched for as the system searches for libraries.
    explicit SharedObject(std::filesystem::path const& file);

    // Null when it has none of that name.
    template <class Function>
    Function* find(char const* symbol) const {
        return reinterpret_cast<Function*>(address(symbol));
    }

    // Where it was found; as it was asked for when the system does not say.
    std::filesystem::path place() const;

  private:
    struct Close {
        void operator()(void* handle) const;
    };

    void* address(char const* symbol) const;

    std::filesystem::path fileM;
    std::unique_ptr<void, Close> handleM;
};

} // namespace nphost
