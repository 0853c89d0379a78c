// Random.h: the small things that all parts of the random run use.
//
// The random run calls the whole library from several threads, changes list files and modules under
// it, makes allocations, runtime calls and modules fail, calls back from inside of modules, and
// compares each result with a model. How it can know what has to come:
//
//   own keys     each thread has keys, list files and modules of its own (OwnModel.h). It alone
//                changes them, and makes the scan run after a change: each of its results is
//                exactly known, whatever the others do meanwhile.
//   shared keys  all threads use them while any of them adds, removes and replaces them (Shared.h).
//                A create that overlaps a change may see what was before or after it, one that does
//                not sees exactly what is.
//   stable keys  never change; used from inside Init, Uninit and the announcing of keys.
//   checkpoints  after each phase of a fixed number of operations all threads stand still and
//                everything is compared: what is declared, with its attributes; which modules are
//                mapped, by their own word, by the runtime's census and by /proc/self/maps; how
//                many instances each module counts. After some phases the library is stopped,
//                threads start and stop it freely (Life.h), and nothing may be left.
//
// Replay. Operation n of thread t asks for the same in every run with the same seed and number of
// threads: its choices come from these three numbers alone, and phases have fixed lengths.
// --seconds only says after which phase the run ends; --phases ends it after so many. For own keys
// results are the same in each run too. What a create of a shared key meets, how calls of different
// threads interleave, and which of two threads starts the library depends on timing.
//
// A new operation is one more function of Worker and one more line in its table, one more name in
// Counters.h; a run of --complete that never came to it fails.
#ifndef VESSA_TESTS_RELIABILITY_RANDOM_RANDOM_H
#define VESSA_TESTS_RELIABILITY_RANDOM_RANDOM_H

#include <cstdint>
#include <string>

namespace vessa_random {

// Choices that follow from where one is alone.
class Choices {
  public:
    Choices(uint64_t seed, uint64_t thread, uint64_t operation)
        : state_(seed * 0x9e3779b97f4a7c15 + thread * 0xbf58476d1ce4e5b9 +
                 operation * 0x94d049bb133111eb) {
        Next();
    }

    uint64_t Next() {
        state_ += 0x9e3779b97f4a7c15;
        uint64_t mixed = state_;
        mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9;
        mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111eb;
        return mixed ^ (mixed >> 31);
    }
    // 0 to count - 1.
    int Below(size_t count) { return static_cast<int>(Next() % count); }
    bool OneIn(int count) { return Below(static_cast<size_t>(count)) == 0; }

  private:
    uint64_t state_;
};

struct Options {
    uint64_t seed = 1;
    int threads = 8;
    long seconds = 10;
    long phases = 0;         // 0: as many as fit into the seconds
    int operations = 12000;  // of each thread in a phase
    bool complete = false;   // each kind must have occurred
    std::string plant;       // what the program is to do wrong: see Main.cpp
};

// One for the program.
Options& TheOptions();

// Which operation of which thread this is, for a report; -1 is the conductor between phases.
struct Position {
    int thread = -1;
    int64_t operation = 0;
};
Position& ThisPosition();
void SetPhase(long phase);

// Says what was expected and what was seen, and the command that comes here again, and ends the
// program with 1.
[[noreturn]] void Mismatch(const std::string& about, const std::string& expected,
                           const std::string& seen);

std::string ResultName(int result);

}  // namespace vessa_random

#endif
