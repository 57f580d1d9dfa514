#include "framework/RW/RWReadersWriterLock.h"

#include <bit>
#include <chrono>
#include <linux/membarrier.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {

using Lock = RWReadersWriterLock;

// One bit for each own slot that no thread has. A lock-free word and no mutex, which a fork could copy while it is
// held.
static_assert(Lock::ownSlotsCM == 64);
constinit std::atomic<std::uint64_t> FREE_SLOTS{~std::uint64_t{0}};

std::size_t sharedSlot(std::size_t number) noexcept {
    return Lock::ownSlotsCM + number % Lock::sharedSlotsCM;
}

// Runs when a thread ends. What the thread does with locks after that, it does by a shared slot.
void giveSlotBack(void* threadSlot) noexcept {
    std::size_t& slot = *static_cast<std::size_t*>(threadSlot);
    std::uint64_t const bit = std::uint64_t{1} << slot;
    slot = sharedSlot(slot);
    FREE_SLOTS.fetch_or(bit, std::memory_order_release); // the next owner goes on from this one's counts
}

// A thread-specific key, not a thread_local object: where memory lacks, setting it fails and does not end the process;
// its destructor runs after those of thread_local objects, and on the main thread not before those of static objects.
bool giveBackAtThreadEnd(std::size_t& threadSlot) noexcept {
    struct Key {
        pthread_key_t key{};
        bool made = pthread_key_create(&key, giveSlotBack) == 0;
    };
    static Key const key;
    return key.made && pthread_setspecific(key.key, &threadSlot) == 0;
}

std::size_t takeSlot() noexcept {
    static constinit std::atomic<std::size_t> sharing{0};
    std::uint64_t free = FREE_SLOTS.load(std::memory_order_relaxed);
    while (free != 0 && !FREE_SLOTS.compare_exchange_weak(free, free & (free - 1), std::memory_order_acquire,
                                                          std::memory_order_relaxed)) {
    }
    return free != 0 ? static_cast<std::size_t>(std::countr_zero(free))
                     : sharedSlot(sharing.fetch_add(1, std::memory_order_relaxed));
}

void registerThread(std::size_t& threadSlot) noexcept {
    threadSlot = takeSlot();
    if (threadSlot < Lock::ownSlotsCM && !giveBackAtThreadEnd(threadSlot))
        giveSlotBack(&threadSlot);
}

bool membarrier(int command) noexcept {
    return syscall(SYS_membarrier, command, 0, 0) == 0;
}

bool registerBarrier() noexcept {
    return membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED);
}

// Every thread of the process passes a full memory barrier before this returns.
void fenceAllThreads() noexcept {
    if (membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED))
        return;
    if (registerBarrier() && membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED)) // a forked child may have to register anew
        return;
    // A filter of system calls was installed after the lock was made. What is missing is only that stores reach memory,
    // which they do by themselves within microseconds.
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

} // namespace

constinit thread_local std::size_t RWReadersWriterLock::threadSlotM = noSlotCM;

RWReadersWriterLock::RWReadersWriterLock() : ownSlotsM(registerBarrier() ? ownSlotsCM : 0) {}

RWReadersWriterLock::Slot& RWReadersWriterLock::registeredSlot() noexcept {
    if (threadSlotM == noSlotCM)
        registerThread(threadSlotM);
    return slotsM[threadSlotM];
}

// The way of readers that share a slot or may rely on no barrier of the writer's, and of each thread's first read.
void RWReadersWriterLock::acquireReadAtomically(std::uint64_t reads) noexcept NP_NO_THREAD_SAFETY_ANALYSIS {
    Slot& slot = registeredSlot();
    slot.entered.fetch_add(reads);
    if (writerM.load())
        waitToRead(slot, reads);
}

void RWReadersWriterLock::releaseReadAtomically(std::uint64_t reads) noexcept NP_NO_THREAD_SAFETY_ANALYSIS {
    registeredSlot().left.fetch_add(reads);
    if (writerM.load())
        wakeWriter();
}

// Over all slots, because a thread that ends while it reads enters by one and leaves by another.
bool RWReadersWriterLock::readersInside() const noexcept {
    std::uint64_t inside = 0;
    // `left` first: whoever is seen to have left is then seen to have entered, so 0 means that nobody was inside
    // between.
    for (Slot const& slot : slotsM)
        inside -= slot.left.load();
    for (Slot const& slot : slotsM)
        inside += slot.entered.load();
    return inside != 0;
}

std::uint64_t RWReadersWriterLock::shortReads() const noexcept {
    std::uint64_t reads = 0;
    for (Slot const& slot : slotsM)
        reads += slot.left.load(std::memory_order_relaxed);
    return reads;
}

// The reader has counted itself in and met a writer: it steps back, so that the writer can go on, and queues. Once
// counted as waiting it gets in before the next writer raises its flag.
void RWReadersWriterLock::waitToRead(Slot& slot, std::uint64_t reads) noexcept {
    BAS::MutexGuard const guard(shortLockM);
    slot.entered.fetch_sub(reads);
    mayWriteM.notify_one();
    ++waitingReadersM;
    while (writerM.load())
        mayReadM.wait(shortLockM);
    // The flag goes up only under shortLockM, so nobody can raise it between the test and this.
    slot.entered.fetch_add(reads);
    if (--waitingReadersM == 0)
        mayWriteM.notify_one();
}

void RWReadersWriterLock::wakeWriter() noexcept {
    BAS::MutexGuard const guard(shortLockM);
    mayWriteM.notify_one();
}

void RWReadersWriterLock::acquireLongRead() noexcept NP_NO_THREAD_SAFETY_ANALYSIS {
    BAS::MutexGuard const guard(longLockM);
    while (writerInsideM || waitingWritersM != 0)
        longChangedM.wait(longLockM);
    ++longReadersM;
}

void RWReadersWriterLock::releaseLongRead() noexcept NP_NO_THREAD_SAFETY_ANALYSIS {
    BAS::MutexGuard const guard(longLockM);
    if (--longReadersM == 0)
        longChangedM.notify_all();
}

void RWReadersWriterLock::acquireWrite() noexcept NP_NO_THREAD_SAFETY_ANALYSIS {
    {
        BAS::MutexGuard const guard(longLockM);
        ++waitingWritersM;
        while (writerInsideM || longReadersM != 0)
            longChangedM.wait(longLockM);
        --waitingWritersM;
        writerInsideM = true;
    }
    waitForShortReaders();
}

bool RWReadersWriterLock::acquireWriteUnless(std::atomic<bool> const& givenUp) noexcept NP_NO_THREAD_SAFETY_ANALYSIS {
    constexpr std::chrono::milliseconds between(100);
    {
        BAS::MutexGuard const guard(longLockM);
        ++waitingWritersM;
        // Polled: whoever sets the flag may be a signal handler, which can wake nobody.
        while ((writerInsideM || longReadersM != 0) && !givenUp.load())
            longChangedM.wait_for(longLockM, between);
        --waitingWritersM;
        if (writerInsideM || longReadersM != 0) {
            longChangedM.notify_all(); // long readers queue behind a waiting writer
            return false;
        }
        writerInsideM = true;
    }
    waitForShortReaders();
    return true;
}

// Shuts short readers out: lets in who queued behind the writer before, raises the flag, waits until all have left.
void RWReadersWriterLock::waitForShortReaders() noexcept {
    BAS::MutexGuard const guard(shortLockM);
    while (waitingReadersM != 0)
        mayWriteM.wait(shortLockM);
    writerM.store(true);
    // Between the flag and the look at the slots; readers that count by atomic additions bring their own barrier.
    if (ownSlotsM != 0)
        fenceAllThreads();
    while (readersInside())
        mayWriteM.wait(shortLockM);
}

void RWReadersWriterLock::releaseWrite() noexcept NP_NO_THREAD_SAFETY_ANALYSIS {
    {
        BAS::MutexGuard const guard(shortLockM);
        writerM.store(false);
        mayReadM.notify_all();
    }
    // Short readers first: they wait for microseconds, and long ones and writers for each other.
    BAS::MutexGuard const guard(longLockM);
    writerInsideM = false;
    longChangedM.notify_all();
}
