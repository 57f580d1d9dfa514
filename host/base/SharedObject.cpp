#include "host/base/SharedObject.h"

#include "host/base/HostError.h"

#include <dlfcn.h>
#include <link.h>
#include <string>

namespace nphost {

namespace {

// dlerror keeps its text for each thread of its own on this platform.
std::string loaderError() {
    char const* const text = dlerror(); // NOLINT(concurrency-mt-unsafe)
    return text == nullptr ? "unknown reason" : text;
}

} // namespace

// The system counts: what another has loaded, too, stays mapped.
void SharedObject::Close::operator()(void* handle) const {
    dlclose(handle);
}

SharedObject::SharedObject(std::filesystem::path const& file)
    : fileM(file), handleM(dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    if (handleM == nullptr)
        throw HostError(loaderError());
}

std::filesystem::path SharedObject::place() const {
    // The name that was given may have been searched for, or be relative to a folder that is another by now.
    link_map* map = nullptr;
    if (dlinfo(handleM.get(), RTLD_DI_LINKMAP, static_cast<void*>(&map)) != 0)
        return fileM;
    return map->l_name;
}

// A function's address is never null, so dlerror need not be asked.
void* SharedObject::address(char const* symbol) const {
    return dlsym(handleM.get(), symbol);
}

} // namespace nphost
