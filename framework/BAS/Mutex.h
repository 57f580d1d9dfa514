// BAS::Mutex and BAS::MutexGuard: std::mutex with clang's thread-safety annotations.
//
// Purpose: lets clang check at build time which lock guards which member (-Wthread-safety); other compilers see
// a plain mutex. The NP_ macros spell the annotations for every other lock of the project.
// Threads: as std::mutex. Errors: none. Complexity: as std::mutex; no storage of its own.
// Source: clang documentation, "Thread Safety Analysis".
#pragma once

#include <mutex>

#if defined(__clang__)
#define NP_ANNOTATION(x) __attribute__((x))
#else
#define NP_ANNOTATION(x)
#endif

#define NP_CAPABILITY(name) NP_ANNOTATION(capability(name))
#define NP_SCOPED_CAPABILITY NP_ANNOTATION(scoped_lockable)
#define NP_GUARDED_BY(lock) NP_ANNOTATION(guarded_by(lock))
#define NP_ACQUIRE(...) NP_ANNOTATION(acquire_capability(__VA_ARGS__))
#define NP_ACQUIRE_SHARED(...) NP_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define NP_TRY_ACQUIRE(...) NP_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define NP_RELEASE(...) NP_ANNOTATION(release_capability(__VA_ARGS__))
#define NP_RELEASE_SHARED(...) NP_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define NP_REQUIRES(...) NP_ANNOTATION(requires_capability(__VA_ARGS__))
#define NP_REQUIRES_SHARED(...) NP_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define NP_EXCLUDES(...) NP_ANNOTATION(locks_excluded(__VA_ARGS__))
#define NP_NO_THREAD_SAFETY_ANALYSIS NP_ANNOTATION(no_thread_safety_analysis)

namespace BAS {

class NP_CAPABILITY("mutex") Mutex {
  public:
    constexpr Mutex() noexcept = default;
    Mutex(Mutex const&) = delete;
    Mutex& operator=(Mutex const&) = delete;

    void lock() NP_ACQUIRE() { mutexM.lock(); }
    void unlock() NP_RELEASE() { mutexM.unlock(); }

  private:
    std::mutex mutexM;
};

class NP_SCOPED_CAPABILITY MutexGuard {
  public:
    explicit MutexGuard(Mutex& mutex) NP_ACQUIRE(mutex) : mutexM(mutex) { mutexM.lock(); }
    ~MutexGuard() NP_RELEASE() { mutexM.unlock(); }
    MutexGuard(MutexGuard const&) = delete;
    MutexGuard& operator=(MutexGuard const&) = delete;

  private:
    Mutex& mutexM;
};

} // namespace BAS
