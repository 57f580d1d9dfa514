// The readers-writer lock's promise: exclusion, and who waits for whom. Tests wait for conditions, never for time.
#include "framework/RW/RWReadersWriterLock.h"
#include "tests/SeededRandom.h"
#include "tests/WatchedThread.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <dlfcn.h>
#include <functional>
#include <gtest/gtest.h>
#include <latch>
#include <linux/filter.h>
#include <linux/membarrier.h>
#include <linux/seccomp.h>
#include <optional>
#include <pthread.h>
#include <random>
#include <string>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace {

// Called by the next writer's barrier, in its thread.
std::function<void()> atBarrier;

} // namespace

// In place of the C library's, for the framework's library, too.
extern "C" long syscall(long number, ...) noexcept {
    static auto* const real = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));
    std::array<long, 6> arguments{};
    va_list list;
    va_start(list, number);
    for (long& argument : arguments)
        argument = va_arg(list, long);
    va_end(list);
    if (number == SYS_membarrier && arguments[0] == MEMBARRIER_CMD_PRIVATE_EXPEDITED && atBarrier)
        atBarrier();
    return std::apply([&](auto... all) { return real(number, all...); }, arguments);
}

namespace {

class NP_SCOPED_CAPABILITY WriteGuard {
  public:
    explicit WriteGuard(RWReadersWriterLock& lock) NP_ACQUIRE(lock) : lockM(lock) { lockM.acquireWrite(); }
    ~WriteGuard() NP_RELEASE() { lockM.releaseWrite(); }

  private:
    RWReadersWriterLock& lockM;
};

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

// Readers of both kinds that never pause, two writers.
void expectThatNobodySeesHalfAWrite(RWReadersWriterLock& lock, int writes = 2000) {
    long first = 0;
    long second = 0;
    std::atomic<bool> stop{false};
    std::atomic<long> torn{0};
    std::vector<std::jthread> threads;
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
        for (int i = 0; i < writes; ++i) {
            WriteGuard const guard(lock);
            ++first;
            ++second;
        }
    };
    std::thread writer(write);
    write(); // and this thread: writers exclude each other, and readers that never pause keep neither out
    writer.join();
    stop = true;
    threads.clear(); // joined
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(first, 2 * writes);
}

// One reader and one writer that both store into the same lines before they take the lock, so that what they store then
// reaches memory late: without a barrier the two now and then miss each other, if each runs on a processor of its own.
void expectThatNobodyMissesTheOther(RWReadersWriterLock& lock) {
    struct alignas(128) Line {
        std::atomic<long> value{0};
    };
    std::vector<Line> lines(32);
    auto const dirty = [&](long value) {
        for (Line& line : lines)
            line.value.store(value, std::memory_order_relaxed);
    };
    std::atomic<long> guarded{0};
    std::atomic<bool> stop{false};
    long torn = 0;
    std::thread reader([&] {
        for (long round = 0; round < 20'000; ++round) {
            dirty(round);
            RWReadersWriterLock::ReadGuard const guard(lock);
            long const before = guarded.load(std::memory_order_relaxed);
            for (int i = 0; i < 500; ++i)
                torn += guarded.load(std::memory_order_relaxed) == before ? 0 : 1;
        }
        stop = true;
    });
    for (long round = 0; !stop; ++round) {
        dirty(round);
        WriteGuard const guard(lock);
        guarded.store(round, std::memory_order_relaxed);
    }
    reader.join();
    EXPECT_EQ(torn, 0);
}

// Has the kernel refuse membarrier to this process from here on.
bool refuseBarrier() {
    sock_filter code[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                          BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_membarrier, 0, 1),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    sock_fprog const program{static_cast<unsigned short>(std::size(code)), code};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0 &&
           syscall(SYS_membarrier, MEMBARRIER_CMD_QUERY, 0, 0) == -1 && errno == ENOSYS;
}

constexpr int cannotFilter = 77;

// What `act` returns in a forked child; 1 if an expectation failed there.
int inChild(std::function<int()> const& act) {
    pid_t const child = fork();
    if (child == 0) {
        int const result = act();
        _exit(testing::Test::HasFailure() ? 1 : result);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Reads until the other has read often, too.
void readBeside(RWReadersWriterLock& lock, std::atomic<std::uint64_t>& own, std::atomic<std::uint64_t> const& other) {
    while (own < 300'000 || other < 300'000) {
        RWReadersWriterLock::ReadGuard const guard(lock);
        ++own;
    }
}

struct LastReads {
    RWReadersWriterLock& lock;
    std::atomic<std::uint64_t> own{0};
    std::atomic<std::uint64_t> others{0};
};

// The last destructor of a thread: it ends the read that the thread began and goes on reading, beside a new thread that
// has got what this one had.
void readAtTheEnd(void* lastReads) NP_NO_THREAD_SAFETY_ANALYSIS {
    auto& [lock, own, others] = *static_cast<LastReads*>(lastReads);
    lock.releaseRead();
    std::thread next([&last = *static_cast<LastReads*>(lastReads)] { readBeside(last.lock, last.others, last.own); });
    readBeside(lock, own, others);
    next.join();
}

} // namespace

TEST(ReadersWriterLock, NobodySeesHalfAWrite) {
    RWReadersWriterLock lock;
    expectThatNobodySeesHalfAWrite(lock);
}

TEST(ReadersWriterLock, NeitherReaderNorWriterMissesTheOther) {
    RWReadersWriterLock lock;
    expectThatNobodyMissesTheOther(lock);
}

// Nobody else comes who could wake it.
TEST(ReadersWriterLock, TheOnlyReaderWakesTheWriterWhenItLeaves) {
    RWReadersWriterLock lock;
    for (int i = 0; i < 200; ++i) {
        std::atomic<bool> written{false};
        lock.acquireRead();
        std::thread writer = startWriter(lock, written);
        for (int pause = 0; pause < i; ++pause) // so that it leaves before, while and after the writer begins to wait
            std::this_thread::yield();
        EXPECT_FALSE(written);
        lock.releaseRead();
        writer.join();
    }
}

// In one child from before the lock is made, in the other after that.
TEST(ReadersWriterLock, NobodySeesHalfAWriteWhereTheKernelRefusesTheBarrier) {
    int const fromTheStart = inChild([] {
        if (!refuseBarrier())
            return cannotFilter;
        RWReadersWriterLock lock;
        expectThatNobodySeesHalfAWrite(lock, 500);
        expectThatNobodyMissesTheOther(lock);
        return 0;
    });
    if (fromTheStart == cannotFilter)
        GTEST_SKIP() << "cannot install a filter of system calls here";
    EXPECT_EQ(fromTheStart, 0);
    EXPECT_EQ(inChild([] {
                  RWReadersWriterLock lock;
                  EXPECT_TRUE(refuseBarrier());
                  expectThatNobodySeesHalfAWrite(lock, 50); // each takes milliseconds
                  return 0;
              }),
              0);
}

TEST(ReadersWriterLock, NobodySeesHalfAWriteInAForkedChild) {
    RWReadersWriterLock lock;
    lock.acquireRead(7);
    lock.releaseRead(7);
    EXPECT_EQ(inChild([&] {
                  EXPECT_EQ(lock.shortReads(), 7U);
                  expectThatNobodySeesHalfAWrite(lock);
                  return 0;
              }),
              0);
    lock.acquireWrite();
    lock.releaseWrite();
    EXPECT_EQ(lock.shortReads(), 7U);
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

// Each waits where the next could overtake it.
TEST(ReadersWriterLock, ALongReaderDoesNotOvertakeAWriterThatWaits) {
    RWReadersWriterLock lock;
    int overtaken = 0;
    for (int round = 0; round < 20; ++round) {
        std::atomic<bool> written{false};
        lock.acquireLongRead();
        WatchedThread const writer([&] {
            WriteGuard const guard(lock);
            written = true;
        });
        writer.waitUntilAsleep();
        WatchedThread const late([&] {
            RWReadersWriterLock::LongReadGuard const guard(lock);
            overtaken += written ? 0 : 1;
        });
        late.waitUntilAsleep();
        lock.releaseLongRead();
    }
    EXPECT_EQ(overtaken, 0);
}

TEST(ReadersWriterLock, AWriterDoesNotOvertakeAShortReaderThatWaits) {
    RWReadersWriterLock lock;
    int overtaken = 0;
    for (int round = 0; round < 100; ++round) {
        std::atomic<bool> read{false};
        lock.acquireWrite();
        WatchedThread const reader([&] {
            RWReadersWriterLock::ReadGuard const guard(lock);
            read = true;
        });
        reader.waitUntilAsleep();
        lock.releaseWrite();
        lock.acquireWrite(); // at once, before the reader can have woken up
        overtaken += read ? 0 : 1;
        lock.releaseWrite();
    }
    EXPECT_EQ(overtaken, 0);
}

TEST(ReadersWriterLock, AWriterMayGiveUp) {
    RWReadersWriterLock lock;
    std::atomic<bool> givenUp{false};
    {
        RWReadersWriterLock::LongReadGuard const guard(lock);
        WatchedThread const writer(
            [&]() NP_NO_THREAD_SAFETY_ANALYSIS { EXPECT_FALSE(lock.acquireWriteUnless(givenUp)); });
        writer.waitUntilAsleep();
        WatchedThread const behind([&] { RWReadersWriterLock::LongReadGuard const late(lock); });
        behind.waitUntilAsleep();
        givenUp = true; // and whoever queued behind it gets in
    }
    if (lock.acquireWriteUnless(givenUp))
        lock.releaseWrite();
    else
        ADD_FAILURE() << "nobody has to be waited for";
}

// A reader that is inside leaves, and another comes, while the writer's barrier is going on: it comes after the flag
// was raised, and before the writer looks who is inside.
TEST(ReadersWriterLock, AWriterHasAllPassABarrierBetweenItsFlagAndItsLook) {
    if (syscall(SYS_membarrier, MEMBARRIER_CMD_QUERY, 0, 0) <= 0)
        GTEST_SKIP() << "the kernel has no such barrier";
    RWReadersWriterLock lock;
    std::atomic<int> barriers{0};
    std::atomic<bool> inside{false};
    std::atomic<bool> gotIn{false};
    WatchedThread const first([&] {
        RWReadersWriterLock::ReadGuard const guard(lock);
        inside = true;
        while (barriers == 0)
            std::this_thread::yield();
    });
    while (!inside)
        std::this_thread::yield();
    std::optional<WatchedThread> second;
    atBarrier = [&] {
        second.emplace([&] {
            RWReadersWriterLock::ReadGuard const guard(lock);
            gotIn = true;
        });
        second->waitUntilAsleep();
        EXPECT_FALSE(gotIn);
        ++barriers;
        atBarrier = nullptr;
    };
    lock.acquireWrite();
    EXPECT_EQ(barriers, 1);
    EXPECT_FALSE(gotIn);
    lock.releaseWrite();
}

// More threads than slots, so that some share one.
TEST(ReadersWriterLock, CountsReadersOfMoreThreadsThanSlots) {
    RWReadersWriterLock lock;
    constexpr std::size_t count = 3 * (RWReadersWriterLock::ownSlotsCM + RWReadersWriterLock::sharedSlotsCM);
    std::latch inside(count);
    std::latch leave(1);
    std::vector<std::jthread> readers;
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
    readers.clear(); // joined
    EXPECT_EQ(lock.shortReads(), count);
}

namespace {

using Seed = std::mt19937::result_type;

// Generations of threads, one after the other.
void breed(std::function<void(Seed)> const& act, Seed seed) {
    std::mt19937 random(seed);
    for (int generation = 0; generation < 20; ++generation) {
        std::vector<std::jthread> threads(random() % 50); // joined by their ends
        for (std::jthread& thread : threads)
            thread = std::jthread(act, random());
    }
}

} // namespace

// Threads hand their slots on to others, which go on from their counts, while a writer never pauses.
TEST(ReadersWriterLock, ThreadsComeAndGoBesideAWriter) {
    SeededRandom random;
    RWReadersWriterLock lock;
    long first = 0;
    long second = 0;
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        while (!stop) {
            WriteGuard const guard(lock);
            ++first;
            ++second;
        }
    });
    std::atomic<std::uint64_t> reads{0};
    std::atomic<long> torn{0};
    auto const read = [&](Seed seed) {
        std::mt19937 choice(seed);
        for (auto left = choice() % 50; left != 0; --left) {
            std::uint64_t const many = 1 + choice() % 3;
            RWReadersWriterLock::ReadGuard const guard(lock, many);
            torn += first == second ? 0 : 1;
            reads += many;
        }
    };
    std::thread breeder(breed, read, random());
    breed(read, random());
    breeder.join();
    stop = true;
    writer.join();
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(lock.shortReads(), reads);
}

TEST(ReadersWriterLock, AThreadReadsOnWhileItEnds) {
    RWReadersWriterLock lock;
    LastReads last{lock};
    lock.acquireRead(); // first, because destructors run in the order of their keys
    lock.releaseRead();
    pthread_key_t key{};
    ASSERT_EQ(pthread_key_create(&key, readAtTheEnd), 0);
    std::thread([&]() NP_NO_THREAD_SAFETY_ANALYSIS {
        pthread_setspecific(key, &last);
        lock.acquireRead();
    }).join();
    pthread_key_delete(key);
    lock.acquireWrite(); // nobody is taken to be still inside
    lock.releaseWrite();
    EXPECT_EQ(lock.shortReads(), 2 + last.own + last.others);
}
