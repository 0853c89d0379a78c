// Application.h: what the threads of a run do, and what they check at every step.
#ifndef VESSA_TESTS_RELIABILITY_SEEDS_APPLICATION_H
#define VESSA_TESTS_RELIABILITY_SEEDS_APPLICATION_H

#include <array>
#include <atomic>
#include <vector>

#include "reliability/seeds/Schedule.h"
#include "reliability/seeds/World.h"
#include "vessa/vessa.h"

namespace seeds {

// The exports of the library under test, which is loaded anew for each run.
struct Exports {
    decltype(&VESSA_Init) Init;
    decltype(&VESSA_Uninit) Uninit;
    decltype(&VESSA_CreateInstance) Create;
    decltype(&VESSA_DestroyInstance) Destroy;
    decltype(&VESSA_QueryInterface) Query;
    decltype(&VESSA_QueryConfigAttribute) QueryAttribute;
    decltype(&VESSA_QueryAllFkeys) QueryKeys;
    decltype(&VESSA_ReleaseAllFkeys) ReleaseKeys;
};

struct Slot {
    std::atomic<void*> instance{nullptr};
};

// What the threads of one run share.
struct Shared {
    Exports library{};
    World* world = nullptr;
    bool library_runs = false;    // the first thread is a user from the beginning to the end
    Key wanted = kStable;         // what half of the creates are for
    bool is_restless = false;     // starts and stops all the time
    bool modules_behave = false;  // no failing Init, nothing nested
    std::array<Slot, 3> slots;    // instances on their way from one thread to another
};
extern Shared* shared;

// One application thread, with what it owns.
class Application {
  public:
    Application(uint64_t seed, int steps) : random_(seed), steps_(steps) {}

    static int Run(void* application);
    // Also inside of a module that this thread called.
    schedule::Random& random() { return random_; }
    // Gives one of its own starts back. False: it has none.
    bool StopOnce();
    void* Create(Key key);
    static void Destroy(void* instance);
    static void Query(void* instance);

  private:
    void Step();
    void Start();
    void CreateOne();
    void QueryKeys();
    void QueryAttribute();
    void Exchange();
    bool LibraryRuns() const { return shared->library_runs || starts_ > 0; }
    void* TakeOne();

    schedule::Random random_;
    const int steps_;
    int starts_ = 0;
    std::vector<void*> instances_;
};

// The application whose thread this is; null: it has none.
Application* ThisApplication();

// Switches list files below the root.
struct Mover {
    schedule::Random random;
    int steps;
    uint32_t pause;
    static int Run(void* mover);
};

}  // namespace seeds

#endif
