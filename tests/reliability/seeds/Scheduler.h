// Scheduler.h: what the stand-ins of the runtime's functions ask of the schedule. Each of these is
// called by the thread that has the processor.
#ifndef VESSA_TESTS_RELIABILITY_SEEDS_SCHEDULER_H
#define VESSA_TESTS_RELIABILITY_SEEDS_SCHEDULER_H

#include <cstdint>

#include "reliability/seeds/Schedule.h"

namespace schedule {

// Whether the calling thread is one of the schedule's, while there is one.
bool IsManaged();

// The calling thread goes on when the mutex is free for it, and has it then.
void TakeMutex(const void* mutex);
void GiveMutex(const void* mutex);

// Waits for a post of the semaphore. False: the time is up.
constexpr unsigned kNoTimeOut = 0xFFFFFFFF;
constexpr unsigned kLongWaitMs = 1000;
class Wait {
  public:
    Wait(const void* semaphore, unsigned milliseconds);
    bool UntilPosted();

  private:
    const void* const semaphore_;
    const unsigned milliseconds_;
    uint64_t due_;  // the step at which the time is up
};
void Posted(const void* semaphore);

// The number of the next thread, which is ready to run from now on; its life; and its end, which
// Join waits for.
int AddThread();
void DropThread(int thread);
void BeginThread(int thread);
void EndThread();
void Join(int thread);

// Lets every other thread run first.
void GiveWay();

}  // namespace schedule

#endif
