// RWReadersWriterLock: shared and exclusive locking, with short and long readers told apart. Not recursive.
//
// Purpose: guards which of two trees serves look-ups. A look-up is a short reader (microseconds), a printed listing a
// long one (seconds), an exchange of the trees the writer.
//
// Promise:
// - Short readers wait for exclusive sections only, never for a long reader and never for a writer that itself waits
//   for one. A short reader waits for two exclusive sections at the most, plus the time that the short readers of
//   that moment need to leave: writers let the readers that queued behind one section in before the next begins.
// - Short readers that never pause cannot keep a writer out: it waits only for those already inside.
// - A writer waits for the long readers that are inside, and long readers that come while it waits queue behind it,
//   so an unbroken chain of long readers cannot keep it out either. A single long reader can, for as long as it
//   stays; a thread that keeps taking the write lock can delay long readers, but never starves short ones.
//
// Units and ranges: `reads` counts look-ups, 1 and up; with 0 a reader would not be seen.
// Ownership: the lock owns nothing outside itself. It must outlive every operation, until that has returned.
// Threads: every operation from any thread, also while the thread or the process ends; not from signal handlers. The
// thread that acquired releases. A thread takes one of ownSlotsCM indices at its first short read, for all locks of the
// process, and gives it back when it ends; while none is free, threads share the sharedSlotsCM others. A forked child
// may go on with a lock that was free at the fork; indices of threads that only its parent has stay taken in it.
// Errors: none but the construction's. Complexity: a short reader with an index of its own makes a few plain accesses
// to its own cache line, nothing atomic as a whole and no call; one without makes two atomic additions, on a line that
// it may share. A writer interrupts every processor on which the process runs, once, and looks at all slots. Making a
// lock is one system call, of some milliseconds for the first lock of a process that has several threads.
//
// How: a short reader counts itself into its thread's slot and then looks at the writer's flag; the writer raises the
// flag and then waits until as many have left as have entered. One of the two must see the other (Dekker's argument),
// which takes a full memory barrier on either side. Readers are many and writers rare, so the writer has the kernel put
// one into every running thread (membarrier), and the readers only keep the compiler from reordering. For each reader
// it falls before the look at the flag, which then shows the writer, or after the count, which the writer then sees; in
// the same way a leaving reader is seen to have left or sees that it has to wake the writer. Where the kernel refuses
// this to a new lock, all its readers count by atomic additions, which are barriers. Long readers and writers first
// meet on a mutex of their own, so that the flag goes up only when no long reader is left to wait for.
#pragma once

#include "framework/BAS/Mutex.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>

class NP_CAPABILITY("readers-writer lock") RWReadersWriterLock {
  public:
    static constexpr std::size_t ownSlotsCM = 64;
    static constexpr std::size_t sharedSlotsCM = 16;

    RWReadersWriterLock(); // throws std::bad_alloc
    RWReadersWriterLock(RWReadersWriterLock const&) = delete;
    RWReadersWriterLock& operator=(RWReadersWriterLock const&) = delete;

    // `reads` is how many look-ups are made under the one lock, for shortReads(); acquire and release name the same.
    void acquireRead(std::uint64_t reads = 1) noexcept NP_ACQUIRE_SHARED() {
        std::size_t const slot = threadSlotM;
        if (slot >= ownSlotsM) [[unlikely]]
            return acquireReadAtomically(reads);
        std::atomic<std::uint64_t>& entered = slotsM[slot].entered; // written by this thread alone
        entered.store(entered.load(std::memory_order_relaxed) + reads, std::memory_order_relaxed);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (writerM.load(std::memory_order_acquire)) [[unlikely]]
            waitToRead(slotsM[slot], reads);
    }
    void releaseRead(std::uint64_t reads = 1) noexcept NP_RELEASE_SHARED() {
        std::size_t const slot = threadSlotM;
        if (slot >= ownSlotsM) [[unlikely]]
            return releaseReadAtomically(reads);
        std::atomic<std::uint64_t>& left = slotsM[slot].left;
        left.store(left.load(std::memory_order_relaxed) + reads, std::memory_order_release);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (writerM.load(std::memory_order_acquire)) [[unlikely]]
            wakeWriter();
    }

    // How many short reads there have been. Not exact while readers are inside or meet a writer.
    std::uint64_t shortReads() const noexcept;

    void acquireLongRead() noexcept NP_ACQUIRE_SHARED();
    void releaseLongRead() noexcept NP_RELEASE_SHARED();
    void acquireWrite() noexcept NP_ACQUIRE();
    // The same; false, and nothing is acquired, when `givenUp` becomes true while long readers are waited for. It is
    // looked at ten times a second, so that a signal handler may set it.
    bool acquireWriteUnless(std::atomic<bool> const& givenUp) noexcept NP_TRY_ACQUIRE(true);
    void releaseWrite() noexcept NP_RELEASE();

    // One of each for the length of a scope.
    class NP_SCOPED_CAPABILITY ReadGuard {
      public:
        explicit ReadGuard(RWReadersWriterLock& lock, std::uint64_t reads = 1) NP_ACQUIRE_SHARED(lock)
            : lockM(lock), readsM(reads) {
            lockM.acquireRead(readsM);
        }
        ~ReadGuard() NP_RELEASE() { lockM.releaseRead(readsM); }
        ReadGuard(ReadGuard const&) = delete;
        ReadGuard& operator=(ReadGuard const&) = delete;

      private:
        RWReadersWriterLock& lockM;
        std::uint64_t readsM;
    };
    class NP_SCOPED_CAPABILITY LongReadGuard {
      public:
        explicit LongReadGuard(RWReadersWriterLock& lock) NP_ACQUIRE_SHARED(lock) : lockM(lock) {
            lockM.acquireLongRead();
        }
        ~LongReadGuard() NP_RELEASE() { lockM.releaseLongRead(); }
        LongReadGuard(LongReadGuard const&) = delete;
        LongReadGuard& operator=(LongReadGuard const&) = delete;

      private:
        RWReadersWriterLock& lockM;
    };

  private:
    static constexpr std::size_t cacheLineCM = 128; // two lines: the hardware fetches neighbours in pairs

    struct alignas(cacheLineCM) Slot {
        std::atomic<std::uint64_t> entered{0};
        std::atomic<std::uint64_t> left{0};
    };

    static constexpr std::size_t noSlotCM = SIZE_MAX;
    static constexpr std::size_t slotsCM = ownSlotsCM + sharedSlotsCM;

    Slot& registeredSlot() noexcept;
    void acquireReadAtomically(std::uint64_t reads) noexcept NP_ACQUIRE_SHARED();
    void releaseReadAtomically(std::uint64_t reads) noexcept NP_RELEASE_SHARED();
    void waitToRead(Slot& slot, std::uint64_t reads) noexcept;
    void wakeWriter() noexcept;
    void waitForShortReaders() noexcept;
    bool readersInside() const noexcept;

    // This thread's index in every lock's slots. One variable in the framework library, whoever includes this, and of a
    // storage model that needs no call to reach it.
    [[gnu::tls_model("initial-exec")]] static constinit thread_local std::size_t threadSlotM;

    std::array<Slot, slotsCM> slotsM; // the first ownSlotsCM of one thread at a time each, the others shared

    // Read by every short reader, written by writers only.
    alignas(cacheLineCM) std::atomic<bool> writerM{false};
    std::size_t const ownSlotsM; // indices below it are counted without atomic additions: ownSlotsCM or 0

    // Long readers and writers: who is inside, who queues.
    alignas(cacheLineCM) BAS::Mutex longLockM;
    std::condition_variable_any longChangedM;
    unsigned longReadersM NP_GUARDED_BY(longLockM) = 0;
    unsigned waitingWritersM NP_GUARDED_BY(longLockM) = 0;
    bool writerInsideM NP_GUARDED_BY(longLockM) = false;

    // Short readers that met a writer, and the writer that waits for short readers.
    BAS::Mutex shortLockM;
    std::condition_variable_any mayReadM;
    std::condition_variable_any mayWriteM;
    unsigned waitingReadersM NP_GUARDED_BY(shortLockM) = 0;
};
