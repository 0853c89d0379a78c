// Schedule.h: one thread runs at a time, and a seed says which.
//
// The shared library vessa_seeds_schedule stands before the runtime in a program's search order. It
// has the runtime's functions (which go on to the real ones), the sync points of the library under
// test, and the two calls of the system by which the library gives way. Between Begin and End every
// thread that TOVA_Thread_Create makes, and the one that called Begin, passes the processor on at
// each of these places, and at no other, to the one that the seed chooses. So a seed is a schedule,
// and the same seed is the same schedule again.
//
// Who waits is known, not guessed: the schedule keeps which thread has which mutex, and tries a
// semaphore instead of waiting for it. A wait with a time-out ends by a post; a long one (the
// scanning thread's 30 s) also after a number of steps that the seed says. A shorter one ends by
// its time when nothing else is left to run, and that fails the run: no wake-up of the library may
// depend on the clock. In one of four seeds short waits also end by themselves after some steps.
//
// Three kinds of choice take turns: by the throw of a die at each place; by priorities, of which
// some are lowered at a few steps; and by priorities that are lowered, every other time, at some
// of the names of places, which the seed picks: that finds what needs a thread to be held for long,
// or two of them.
//
// The processor is handed on by the system's bare call, and this library is built without
// sanitizers: the thread sanitizer sees no order between threads but the one that the library under
// test makes.
#ifndef VESSA_TESTS_RELIABILITY_SEEDS_SCHEDULE_H
#define VESSA_TESTS_RELIABILITY_SEEDS_SCHEDULE_H

#include <cstdint>

namespace schedule {

#define SCHEDULE_API __attribute__((visibility("default")))

// What the thread sanitizer must not be told of, the schedule's own numbers among it, is kept by a
// generator for each purpose.
class SCHEDULE_API Random {
  public:
    explicit Random(uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15u + 0x2545F4914F6CDD1Du) {}
    uint64_t Next();
    // 0 to below - 1.
    uint32_t Below(uint32_t below) { return static_cast<uint32_t>(Next() % below); }
    bool OneIn(uint32_t times) { return Below(times) == 0; }

  private:
    uint64_t state_;
};

struct Summary {
    uint64_t hash;  // of the threads that ran, in their order, and where
    uint64_t steps;
    uint64_t switches;
    uint64_t scans;  // long waits that ended by their time
    int threads;
};

// What the runtime's functions created and did not destroy yet.
struct Census {
    long mutexes, semaphores, threads, modules, folders;
};

// The calling thread is the first one. The schedule of this round of the seed lasts until End, when
// it must be the only one again.
SCHEDULE_API void Begin(uint64_t seed, int round);
SCHEDULE_API Summary End();
SCHEDULE_API bool IsOn();

// A place where the processor may be passed on. name lives as long as the program.
SCHEDULE_API void Point(const char* name);
// Waits for less than that many steps of all threads, or until nothing else is left to run.
SCHEDULE_API void Pause(uint32_t steps);
// Which thread of the schedule this is; the one that called Begin is 0.
SCHEDULE_API int ThisThread();
// Lets the scanning thread end the round that it is in, or make one, and waits for that; the round
// after it begins after this call. False: there is no other thread.
SCHEDULE_API bool Tick();

// Ends the process with status 3, the text, and what every thread does.
[[noreturn]] SCHEDULE_API void Fail(const char* format, ...) __attribute__((format(printf, 1, 2)));
SCHEDULE_API Census Count();

// Where the seed and the steps are shown to whoever watches this process. May be null.
struct Shown {
    volatile uint64_t seed;
    volatile uint64_t round;
    volatile uint64_t steps;
};
SCHEDULE_API void ShowIn(Shown* shown);

}  // namespace schedule

#endif
