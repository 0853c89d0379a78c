// Host.h: what the program answers when a module asks it, and which calls are made to fail.
#ifndef VESSA_TESTS_RELIABILITY_RANDOM_HOST_H
#define VESSA_TESTS_RELIABILITY_RANDOM_HOST_H

#include <atomic>
#include <memory>
#include <mutex>

#include "Files.h"
#include "ModuleSide.h"
#include "OwnModel.h"
#include "reliability/LoadedLibrary.h"
#include "support/Runtime.h"

namespace vessa_random {

// Answers create, destroy and query on the thread for which it is set; without one the module goes
// on.
class Answerer {
  public:
    virtual ~Answerer() = default;
    virtual RandomAction Answer(RandomCall& call) = 0;
};

// Sets the answerer of this thread while it lives.
class Answers {
  public:
    explicit Answers(Answerer* answerer);
    ~Answers();
    Answers(const Answers&) = delete;
    Answers& operator=(const Answers&) = delete;

  private:
    Answerer* const before_;
};

// The calls of this thread into the runtime fail in this way while it lives, in a phase with
// faults; but not what a module calls meanwhile.
class CallFault {
  public:
    explicit CallFault(LoadFault fault);
    ~CallFault();
    CallFault(const CallFault&) = delete;
    CallFault& operator=(const CallFault&) = delete;
};

// What happens to one round on the scanning thread.
struct RoundFault {
    LoadFault load = LoadFault::kNone;
    bool open_fails = false;
    long allocation = 0;  // this one fails, from the scan's first folder on
};

// The library, its runtime and the scan. One for the program.
class Host {
  public:
    explicit Host(Files& files);
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    static Host& The();
    vessa_test::LoadedLibrary& library() { return files_.library(); }
    Files& files() { return files_; }

    // Whether calls may be made to fail until the next call of this. While they may, hooks stand at
    // the runtime's seam, whose mutex orders the threads.
    void SetFaults(bool on);
    // Threads get none at these odds; 0 is never.
    void SetThreadFaults(int one_in);
    bool faults() const { return faults_; }

    // Whoever changes what is on disk holds this, until the rounds that follow are done.
    std::mutex& scan_mutex() { return scan_mutex_; }
    // One scan, with what follows from it.
    void Round(const RoundFault& fault = {});

    // Whether the stable keys are there for certain: the library runs, and nobody stops it.
    void SetStable(bool is_certain) { stable_.store(is_certain); }
    bool stable() const { return stable_.load(); }

    // A new runtime, which forgets the threads that have ended.
    void RenewRuntime();

  private:
    Files& files_;
    std::unique_ptr<vessa_test::Runtime> runtime_;
    std::mutex scan_mutex_;
    std::atomic<bool> stable_{false};
    bool faults_ = false;
};

constexpr char kStableKey[] = "stable";
constexpr int kStableOwner = 2000;  // of its module's number
constexpr char kStableNote[] = "always here";

// Creates, asks and destroys an instance of a stable key, reads its attribute, lists all keys,
// starts and stops. Any thread, inside of any operation of a module.
void StableCalls();

}  // namespace vessa_random

#endif
