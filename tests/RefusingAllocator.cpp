// Loaded before a program by LD_PRELOAD: refuses allocations of operator new, as a file that both map says.
#include "tests/Refusal.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <malloc.h>
#include <new>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

Refusal* refusal = nullptr;
thread_local bool inHandler = false;

[[gnu::constructor]] void mapRefusal() {
    char const* const file = std::getenv(Refusal::variableCM); // NOLINT(concurrency-mt-unsafe): no other threads yet
    int const descriptor = file == nullptr ? -1 : open(file, O_RDWR | O_CLOEXEC);
    void* const place =
        descriptor < 0 ? MAP_FAILED : mmap(nullptr, sizeof(Refusal), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    close(descriptor);
    refusal = place == MAP_FAILED ? nullptr : static_cast<Refusal*>(place);
}

struct Handling {
    Handling() { inHandler = true; }
    Handling(Handling const&) = delete;
    Handling& operator=(Handling const&) = delete;
    ~Handling() { inHandler = false; }
};

} // namespace

extern "C" void* mmap(void* at, std::size_t bytes, int protection, int flags, int file, off_t offset) noexcept {
    if (refusal != nullptr && refusal->isLasting()) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    return reinterpret_cast<void*>( // NOLINT(performance-no-int-to-ptr)
        syscall(SYS_mmap, at, bytes, protection, flags, file, offset));
}
// What the new handler gives back is there again, though not all of it for small pieces.
extern "C" int munmap(void* range, std::size_t bytes) noexcept {
    if (inHandler)
        refusal->givenBack += static_cast<long>(bytes / 4);
    return static_cast<int>(syscall(SYS_munmap, range, bytes));
}

[[gnu::noinline]] void* operator new(std::size_t size) {
    while (refusal != nullptr && refusal->refuses(static_cast<long>(size))) {
        std::new_handler const handler = std::get_new_handler();
        if (handler == nullptr)
            throw std::bad_alloc();
        Handling const scope;
        handler();
    }
    return std::malloc(size == 0 ? 1 : size);
}
[[gnu::noinline]] void* operator new[](std::size_t size) {
    return operator new(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    if (refusal != nullptr && refusal->isLasting() && refusal->givenBack.load() > 0)
        refusal->givenBack += static_cast<long>(malloc_usable_size(memory)); // pieces of it come back
    std::free(memory);
}
[[gnu::noinline]] void operator delete[](void* memory) noexcept {
    operator delete(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    operator delete(memory);
}
[[gnu::noinline]] void operator delete[](void* memory, std::size_t) noexcept {
    operator delete(memory);
}
