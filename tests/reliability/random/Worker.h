// Worker.h: one thread's operations, and what it knows.
#ifndef VESSA_TESTS_RELIABILITY_RANDOM_WORKER_H
#define VESSA_TESTS_RELIABILITY_RANDOM_WORKER_H

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Host.h"
#include "OwnModel.h"
#include "Random.h"
#include "Shared.h"

namespace vessa_random {

class Worker : private Answerer {
  public:
    // An instance that this thread alone has.
    struct Held {
        void* instance = nullptr;
        int shared = -1;  // of a shared key; otherwise of the own key
        std::string key;
        uint64_t serial = 0;
    };

    Worker(Host& host, Shared& shared, int number);

    // The operations of one phase, from the one that comes next.
    void RunPhase(long phase);

    // While all threads stand still; on any thread.
    OwnModel& model() { return model_; }
    const std::vector<Held>& held() const { return held_; }
    void SettleDuels();
    void DestroyAll(bool every_second);
    void CompareDeclared(bool is_running);
    void CompareKeys();
    void GiveBackUsers();
    void ForgetDead() { dead_.clear(); }

  private:
    // What the module is to do with the next create, destroy or query of this thread.
    struct Plan {
        RandomAction action = kRandomGoOn;
        int code = 0;
        int nested = 0;  // operations from inside of it
        void* same = nullptr;
        bool armed = false;
    };
    using Operation = void (Worker::*)(Choices&);
    struct Weighted {
        int weight;
        Operation operation;
        bool nests;  // may come from inside a module's operation
    };
    static const std::vector<Weighted>& Operations();

    RandomAction Answer(RandomCall& call) override;
    void Perform(Choices& choices, bool nested);
    Plan MakePlan(Choices& choices);

    void CreateOwn(Choices& choices);
    void CreateOwnKey(Choices& choices, const std::string& key, bool plain);
    int CallCreate(const std::string& key, const Plan& plan, LoadFault fault, long allocation,
                   void*& instance, int& error, long& failed);
    void CheckCreated(const std::string& key, const Plan& plan, int reached, int result,
                      void* instance, int error);
    void CreateShared(Choices& choices);
    void CreateUnknown(Choices& choices);
    void Destroy(Choices& choices);
    void DestroyHeld(Choices& choices, size_t at, bool plain);
    void DestroyedOwn(const Held& gone);
    void DestroyDead(Choices& choices);
    void StartDuel(Choices& choices);
    void JoinDuel();
    void EndDuel(Duel* duel);
    void Query(Choices& choices);
    void QueryDead(Choices& choices);
    void Attribute(Choices& choices);
    void AllKeys(Choices& choices);
    void Init(Choices& choices);
    void Uninit(Choices& choices);
    void BadArgument(Choices& choices);

    void OwnRound(Choices& choices);
    void EditList(Choices& choices);
    void EditModule(Choices& choices);
    void PutModule(const std::string& path, ModuleKind kind, Choices& choices);
    void SettleRound();
    void MemoryRound(Choices& choices);
    void CheckMemoryKeys(const std::set<std::string>& before, const std::set<std::string>& after);
    void SharedRound(Choices& choices);

    std::string Name(const std::string& key, int generation) const;
    std::string RandomKey(Choices& choices);
    std::string RandomPath(Choices& choices);
    std::string PathFor(const std::string& key, Choices& choices);
    std::string PathOf(int slot, int place) const;
    bool MayBeLeftForGood();
    void Retire(const std::string& key);
    bool IsOwn(const std::string& key) const;

    Host& host_;
    Shared& shared_;
    vessa_test::LoadedLibrary& library_;
    const int number_;
    const std::string prefix_;  // of its keys and folders
    OwnModel model_;
    int64_t operation_ = 0;
    long phase_ = 0;

    std::vector<Held> held_;
    std::vector<void*> dead_;  // their addresses do not come again before the checkpoint
    std::vector<std::unique_ptr<Duel>> duels_;
    std::vector<std::string> put_off_;  // keys whose module goes at the end of the outermost read
    Plan plan_;
    Choices* choices_ = nullptr;
    int depth_ = 0;  // of operations inside of operations
    int reads_ = 0;  // creates under way
    int users_ = 0;
    int left_for_good_ = 0;
    bool may_leave_ = false;  // in this phase
    std::vector<int> key_generations_;
    std::vector<int> file_generations_;
    std::set<std::string> memory_keys_;
};

}  // namespace vessa_random

#endif
