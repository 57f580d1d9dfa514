#include "framework/RW/RWReadersWriterLock.h"

std::size_t RWReadersWriterLock::nextSlot() noexcept {
    static std::atomic<std::size_t> threads{0};
    return threads.fetch_add(1, std::memory_order_relaxed) % slotsCM;
}

bool RWReadersWriterLock::readersInside() const noexcept {
    for (Slot const& slot : slotsM) {
        // In this order: entered is left and those inside, so equality means that nobody was inside when `left` was read.
        std::uint64_t const left = slot.left.load();
        if (slot.entered.load() != left)
            return true;
    }
    return false;
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
    BAS::MutexGuard const guard(shortLockM);
    while (waitingReadersM != 0)
        mayWriteM.wait(shortLockM);
    writerM.store(true);
    while (readersInside())
        mayWriteM.wait(shortLockM);
}

void RWReadersWriterLock::releaseWrite() noexcept NP_NO_THREAD_SAFETY_ANALYSIS {
    {
        BAS::MutexGuard const guard(shortLockM);
        writerM.store(false);
        mayReadM.notify_all();
    }
    BAS::MutexGuard const guard(longLockM);
    writerInsideM = false;
    longChangedM.notify_all();
}
