// The readers-writer lock's promise: exclusion, and who waits for whom. Tests wait for conditions, never for time.
#include "framework/RW/RWReadersWriterLock.h"

#include <atomic>
#include <gtest/gtest.h>
#include <latch>
#include <thread>
#include <vector>

namespace {

std::thread startWriter(RWReadersWriterLock& lock, std::atomic<bool>& written) {
    return std::thread([&] {
        lock.acquireWrite();
        written = true;
        lock.releaseWrite();
    });
}

// Would hang if a waiting writer held short readers up. The caller is a long reader, which the analysis takes for
// reading twice.
void readManyTimes(RWReadersWriterLock& lock, std::atomic<bool> const& written) NP_NO_THREAD_SAFETY_ANALYSIS {
    for (int i = 0; i < 100'000; ++i) {
        lock.acquireRead();
        EXPECT_FALSE(written);
        lock.releaseRead();
    }
}

} // namespace

TEST(ReadersWriterLock, NobodySeesHalfAWrite) {
    RWReadersWriterLock lock;
    long first = 0;
    long second = 0;
    std::atomic<bool> stop{false};
    std::atomic<long> torn{0};
    std::vector<std::thread> threads;
    auto const read = [&] {
        if (first != second)
            ++torn;
    };
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&] {
            while (!stop) {
                RWReadersWriterLock::ReadGuard const guard(lock);
                read();
            }
        });
    threads.emplace_back([&] {
        while (!stop) {
            RWReadersWriterLock::LongReadGuard const guard(lock);
            read();
        }
    });
    auto const write = [&] {
        for (int i = 0; i < 2000; ++i) {
            RWReadersWriterLock::WriteGuard const guard(lock);
            ++first;
            ++second;
        }
    };
    std::thread writer(write);
    write(); // and this thread: writers exclude each other, and readers that never pause keep neither out
    writer.join();
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(first, 4000);
}

TEST(ReadersWriterLock, ShortReadersPassAWriterThatWaitsForALongReader) {
    RWReadersWriterLock lock;
    std::atomic<bool> written{false};
    lock.acquireLongRead();
    std::thread writer = startWriter(lock, written);
    readManyTimes(lock, written);
    lock.releaseLongRead();
    writer.join();
    EXPECT_TRUE(written);
}

TEST(ReadersWriterLock, AnUnbrokenChainOfLongReadersDoesNotKeepAWriterOut) {
    RWReadersWriterLock lock;
    std::atomic<bool> written{false};
    std::vector<std::thread> chain;
    std::latch running(2);
    for (int i = 0; i < 2; ++i)
        chain.emplace_back([&] {
            running.count_down();
            while (!written) { // each holds the lock most of the time, so that one always overlaps the other
                lock.acquireLongRead();
                for (int pause = 0; pause < 50; ++pause)
                    std::this_thread::yield();
                lock.releaseLongRead();
            }
        });
    running.wait();
    startWriter(lock, written).join();
    for (std::thread& thread : chain)
        thread.join();
    EXPECT_TRUE(written);
}

TEST(ReadersWriterLock, WritersThatNeverPauseDoNotStarveAShortReader) {
    RWReadersWriterLock lock;
    std::atomic<bool> stop{false};
    std::vector<std::thread> writers;
    for (int i = 0; i < 2; ++i)
        writers.emplace_back([&] {
            while (!stop) {
                lock.acquireWrite();
                lock.releaseWrite();
            }
        });
    for (int i = 0; i < 2000; ++i) {
        lock.acquireRead();
        lock.releaseRead();
    }
    stop = true;
    for (std::thread& writer : writers)
        writer.join();
}

// More threads than slots: some share one.
TEST(ReadersWriterLock, CountsReadersOfMoreThreadsThanSlots) {
    RWReadersWriterLock lock;
    constexpr std::size_t count = 3 * (RWReadersWriterLock::ownSlotsCM + RWReadersWriterLock::sharedSlotsCM);
    std::latch inside(count);
    std::latch leave(1);
    std::vector<std::thread> readers;
    for (std::size_t i = 0; i < count; ++i)
        readers.emplace_back([&] {
            lock.acquireRead();
            inside.count_down();
            leave.wait();
            lock.releaseRead();
        });
    inside.wait();
    std::atomic<bool> written{false};
    EXPECT_EQ(lock.shortReads(), 0U);
    std::thread writer = startWriter(lock, written);
    for (int i = 0; i < 100; ++i) { // gives a writer that does not wait every chance to show itself
        std::this_thread::yield();
        EXPECT_FALSE(written);
    }
    leave.count_down();
    writer.join();
    EXPECT_TRUE(written);
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_EQ(lock.shortReads(), count);
}
