// nphost::OrderedRing: jobs that one thread fills, many work on, and one takes away in their order.
//
// Purpose: the places of the ring are jobs that are used again and again. A job is free, then filled, then done, then
// free; the filler waits for a free place, a worker for a filled one, and the last one for the next in order to be
// done. So memory is bounded by the ring, and the order needs no sorting.
// Ownership: owns the jobs; who got one from a start... has it alone until the finish... that follows.
// Threads: one fills, one takes away, any number work. stop and fail by any.
// Errors: fail keeps the first exception, and stop ends everybody's waiting with null; rethrow throws what was kept.
// Complexity: one lock and one wake-up a step.
#pragma once

#include "framework/BAS/Mutex.h"

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <vector>

namespace nphost {

template <class Job>
class OrderedRing {
  public:
    // Whose place it is, for finishWork.
    struct Work {
        Job* job = nullptr;
        std::size_t place = 0;
    };

    explicit OrderedRing(std::size_t places) : jobsM(places), statesM(places, FREE) {}
    OrderedRing(OrderedRing const&) = delete;
    OrderedRing& operator=(OrderedRing const&) = delete;

    // Null when the ring was stopped.
    Job* startFilling() {
        BAS::MutexGuard const guard(lockM);
        std::size_t const place = filledM % jobsM.size();
        waitFor([&]() NP_REQUIRES(lockM) { return statesM[place] == FREE; });
        return stoppedM ? nullptr : &jobsM[place];
    }
    void finishFilling() {
        BAS::MutexGuard const guard(lockM);
        statesM[filledM++ % jobsM.size()] = FILLED;
        changedM.notify_all();
    }
    // There are no more.
    void endFilling() {
        BAS::MutexGuard const guard(lockM);
        endedM = true;
        changedM.notify_all();
    }

    // Without a job when there are no more, or the ring was stopped.
    Work startWork() {
        BAS::MutexGuard const guard(lockM);
        waitFor([&]() NP_REQUIRES(lockM) { return startedM < filledM || endedM; });
        if (stoppedM || startedM == filledM)
            return {};
        std::size_t const place = startedM++ % jobsM.size();
        return {&jobsM[place], place};
    }
    void finishWork(Work const& work) {
        BAS::MutexGuard const guard(lockM);
        statesM[work.place] = DONE;
        changedM.notify_all();
    }

    // The next job in order; null when there are no more, or the ring was stopped.
    Job* startTaking() {
        BAS::MutexGuard const guard(lockM);
        std::size_t const place = takenM % jobsM.size();
        waitFor([&]() NP_REQUIRES(lockM) { return statesM[place] == DONE || (endedM && takenM == filledM); });
        return stoppedM || statesM[place] != DONE ? nullptr : &jobsM[place];
    }
    void finishTaking() {
        BAS::MutexGuard const guard(lockM);
        statesM[takenM++ % jobsM.size()] = FREE;
        changedM.notify_all();
    }

    void stop() {
        BAS::MutexGuard const guard(lockM);
        stoppedM = true;
        changedM.notify_all();
    }
    void fail(std::exception_ptr failure) {
        BAS::MutexGuard const guard(lockM);
        if (failureM == nullptr)
            failureM = std::move(failure);
        stoppedM = true;
        changedM.notify_all();
    }
    void rethrow() {
        BAS::MutexGuard const guard(lockM);
        if (failureM != nullptr)
            std::rethrow_exception(failureM);
    }

  private:
    enum State : unsigned char { FREE, FILLED, DONE };

    template <class Condition>
    void waitFor(Condition const& condition) NP_REQUIRES(lockM) {
        while (!stoppedM && !condition())
            changedM.wait(lockM);
    }

    std::vector<Job> jobsM; // each by whoever has it
    BAS::Mutex lockM;
    std::condition_variable_any changedM;
    std::vector<State> statesM NP_GUARDED_BY(lockM);
    std::size_t filledM NP_GUARDED_BY(lockM) = 0; // how many so far, of each kind
    std::size_t startedM NP_GUARDED_BY(lockM) = 0;
    std::size_t takenM NP_GUARDED_BY(lockM) = 0;
    bool endedM NP_GUARDED_BY(lockM) = false;
    bool stoppedM NP_GUARDED_BY(lockM) = false;
    std::exception_ptr failureM NP_GUARDED_BY(lockM);
};

} // namespace nphost
