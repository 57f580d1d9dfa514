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
// Threads: every operation from any thread; the thread that acquired releases, and from the same shared object: a
// thread's slot is kept once per shared object that includes this header. Short readers of different threads
// count on different cache lines, but for every slotsCM-th thread that the process starts.
// Errors: none. Complexity: a short reader's uncontended way is two atomic operations on its own cache line.
//
// How: a short reader counts itself into its thread's slot and then looks at the writer's flag; the writer raises
// the flag and then waits until as many have left every slot as have entered it. One of the two sees the other (Dekker's argument, so
// these accesses are sequentially consistent). Long readers and writers first meet on a mutex of their own, so that
// the flag goes up only when no long reader is left to wait for.
#pragma once

#include "framework/BAS/Mutex.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>

class NP_CAPABILITY("readers-writer lock") RWReadersWriterLock {
  public:
    static constexpr std::size_t slotsCM = 64;

    RWReadersWriterLock() = default;
    RWReadersWriterLock(RWReadersWriterLock const&) = delete;
    RWReadersWriterLock& operator=(RWReadersWriterLock const&) = delete;

    // `reads` is how many look-ups are made under the one lock, for shortReads(); acquire and release name the same.
    void acquireRead(std::uint64_t reads = 1) noexcept NP_ACQUIRE_SHARED() {
        Slot& slot = ownSlot();
        slot.entered.fetch_add(reads);
        if (writerM.load())
            waitToRead(slot, reads);
    }
    void releaseRead(std::uint64_t reads = 1) noexcept NP_RELEASE_SHARED() {
        ownSlot().left.fetch_add(reads);
        if (writerM.load())
            wakeWriter();
    }

    // How many short reads there have been. Not exact while readers are inside or meet a writer.
    std::uint64_t shortReads() const noexcept;

    void acquireLongRead() noexcept NP_ACQUIRE_SHARED();
    void releaseLongRead() noexcept NP_RELEASE_SHARED();
    void acquireWrite() noexcept NP_ACQUIRE();
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
    class NP_SCOPED_CAPABILITY WriteGuard {
      public:
        explicit WriteGuard(RWReadersWriterLock& lock) NP_ACQUIRE(lock) : lockM(lock) { lockM.acquireWrite(); }
        ~WriteGuard() NP_RELEASE() { lockM.releaseWrite(); }
        WriteGuard(WriteGuard const&) = delete;
        WriteGuard& operator=(WriteGuard const&) = delete;

      private:
        RWReadersWriterLock& lockM;
    };

  private:
    static constexpr std::size_t cacheLineCM = 128; // two lines: the hardware fetches neighbours in pairs

    struct alignas(cacheLineCM) Slot {
        std::atomic<std::uint64_t> entered{0};
        std::atomic<std::uint64_t> left{0};
    };

    static std::size_t nextSlot() noexcept;
    Slot& ownSlot() noexcept {
        thread_local std::size_t const slot = nextSlot();
        return slotsM[slot];
    }
    void waitToRead(Slot& slot, std::uint64_t reads) noexcept;
    void wakeWriter() noexcept;
    bool readersInside() const noexcept;

    std::array<Slot, slotsCM> slotsM;

    // Read by every short reader, written by writers only.
    alignas(cacheLineCM) std::atomic<bool> writerM{false};

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
