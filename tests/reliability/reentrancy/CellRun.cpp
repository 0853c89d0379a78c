#include "reentrancy/CellRun.h"

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include "TestPlatform.h"
#include "common/ThreadScope.h"
#include "reentrancy/Watchdog.h"
#include "support/ModuleHook.h"
#include "support/Runtime.h"
#include "support/Sync.h"
#include "unit/LifeCycleWorld.h"

namespace reentrancy {
namespace {

using vessa_test::Gate;
using vessa_test::JoiningThread;
using vessa_test::ModuleCall;
using vessa_test::ModuleHook;
using vessa_test::Runtime;
using vessa_test::RuntimeCall;
using vessa_test::Tova;
using vessa_test::World;

std::string ResultName(int result) {
    static const struct {
        int number;
        const char* name;
    } kResults[] = {
#define REENTRANCY_RESULT(name, number, meaning) {number, #name},
        VESSA_RESULT_LIST(REENTRANCY_RESULT)
#undef REENTRANCY_RESULT
    };
    for (const auto& known : kResults) {
        if (known.number != result) continue;
        const std::string name = known.name;
        return name.rfind("VESSA_ERR_", 0) == 0 ? name.substr(10) : name.substr(6);
    }
    return "undocumented " + std::to_string(result);
}

// The module of the slot is "m". "0_first" and "z_last" are other plug-ins, registered before and
// unregistered after it; "hold" is for a reader of the application.
class CellRun {
  public:
    CellRun(const Cell& cell, const CellTimes& times, Planted planted)
        : cell_(cell), slot_(cell.slot), times_(times), planted_(planted) {}

    std::string Run() {
        Watch(times_.setup, false);
        Prepare();
        hook_.On("m", slot_.operation, [this](ModuleCall& call) {
            if (entered_ || slot_.fills != (call.fkeys != nullptr)) return;
            entered_ = true;
            InSlot();
        });
        Enter();
        Require(entered_, "the slot was not reached");
        hook_.Off("m", slot_.operation);
        Finish();
        Watch(0, false);
        return outcome_ + problems_;
    }

  private:
    bool Is(Reached reached) const { return slot_.Is(reached); }
    bool IsCall(Export call) const { return cell_.call == call; }
    bool IsRunning() const { return LifeCycle::Get()->coordinator().IsRunning(); }
    // A plug-in that is registered while the slot is entered.
    const char* Other() const { return Is(Reached::kStop) ? "z_last" : "0_first"; }
    bool WantsOther() const { return IsCall(Export::kDestroy) || IsCall(Export::kQuery); }
    // Whether the call waits for the application's reader itself, behind the writer.
    bool CallWrites() const { return !slot_.Reads() && (WantsLast() || IsCall(Export::kUninit)); }
    bool WantsLast() const { return IsCall(Export::kDestroyLast); }

    void Require(bool condition, const std::string& what) {
        if (!condition) problems_ += "; " + what;
    }
    void RequireResult(int result, int expected, const std::string& what) {
        Require(result == expected, what + " gave " + ResultName(result));
    }

    void Create(const char* fkey, void*& instance) {
        RequireResult(VESSA_CreateInstance(fkey, &instance, nullptr), VESSA_OK,
                      std::string("create of ") + fkey);
    }
    void Destroy(void*& instance) {
        if (instance == nullptr) return;
        RequireResult(VESSA_DestroyInstance(instance, nullptr), VESSA_OK, "destroy");
        instance = nullptr;
    }

    void AddModule() {
        std::string module = "map_two";
        if (slot_.operation == "CreateInstance") module = "good_v1";
        if (Is(Reached::kConflict)) module = "same_instance";
        if (Is(Reached::kFirstUse) || Is(Reached::kConflict))
            world_.AddDelayed("m", module);
        else
            world_.Add("m", module, {{"loadfkeys", "true"}});
    }

    // Brings the library to the point from which Enter reaches the slot.
    void Prepare() {
        world_.AddDelayed(Other());
        if (cell_.beside_writer && !slot_.Reads()) world_.AddDelayed("hold");
        if (WantsLast()) world_.AddDelayed("last");
        if (!Is(Reached::kScan)) AddModule();
        if (Is(Reached::kStart)) return;
        RequireResult(VESSA_Init(), VESSA_OK, "start");
        if (slot_.IsDestroy() || slot_.IsQuery() || slot_.IsPutOff() || Is(Reached::kConflict))
            Create("m", own_);
        if (WantsOther()) Create(Other(), other_);
        if (WantsLast()) Create("last", last_);
        RequireResult(VESSA_QueryAllFkeys(&fkeys_, &fkey_count_), VESSA_OK, "keys");
        if (slot_.IsAfterStop()) VESSA_Uninit();
        Unregister();
        if (Is(Reached::kScan)) AddModule();
    }

    // What is to be unregistered before the slot is reached, or by reaching it.
    void Unregister() {
        if (WantsLast() && !slot_.IsAfterStop()) {
            world_.Remove("last");
            Require(runtime_.Tick(), "no next scan");
        }
        if (Is(Reached::kPutOff) || Is(Reached::kScanRemoval)) world_.Remove("m");
        if (Is(Reached::kPutOff)) Require(runtime_.Tick(), "no next scan");
    }

    // Goes through the slot and comes back.
    void Enter() {
        if (slot_.IsOnScanningThread()) {
            runtime_.Tick();
            return;
        }
        JoiningThread([this] { CallOfApplication(); }).Join();
    }

    void CallOfApplication() {
        if (Is(Reached::kStart)) {
            RequireResult(VESSA_Init(), VESSA_OK, "start");
        } else if (Is(Reached::kFirstUse)) {
            Create("m", own_);
        } else if (slot_.IsDestroy() || slot_.IsPutOff()) {
            void* const instance = own_;
            RequireResult(VESSA_DestroyInstance(instance, nullptr), VESSA_OK, "destroy");
            own_ = nullptr;
        } else if (slot_.IsQuery()) {
            void* found = nullptr;
            RequireResult(VESSA_QueryInterface(own_, "iface", &found, nullptr), VESSA_OK, "query");
        } else if (Is(Reached::kConflict)) {
            void* second = nullptr;
            RequireResult(VESSA_CreateInstance("m", &second, nullptr), VESSA_ERR_INSTANCE_CONFLICT,
                          "second create");
        } else {
            VESSA_Uninit();
        }
    }

    // Inside the call into the module.
    void InSlot() {
        if (slot_.Reads() != (ThreadScope::Current()->holds != nullptr))
            Require(false, "the slot holds something else than is said of it");
        if (cell_.beside_writer) StartWriter();
        if (cell_.on_own_thread)
            JoiningThread([this] { TimedCall(); }).Join();
        else
            TimedCall();
        Require(!writer_ || CallWrites() || !writer_->HasEnded(), "the writer did not wait");
        reader_released_.Open();
    }

    void TimedCall() {
        if (WantsOther() && other_ == nullptr) Create(Other(), other_);
        Watch(times_.call, true);
        if (planted_ == Planted::kEndless) Gate().Wait();
        if (planted_ == Planted::kUser) VESSA_Init();
        if (CallWrites()) reader_released_.Open();
        outcome_ = Call();
        Watch(times_.rest, false);
    }

    // Lets a thread wait to write to the registry until the slot is left. A slot that does not
    // read it gets a reader on a third thread, for which the writer waits.
    void StartWriter() {
        runtime_.Before(Tova::SemTimedWait, [this](RuntimeCall&) {
            if (std::this_thread::get_id() == writer_id_.load()) writer_waits_.Open();
        });
        if (!slot_.Reads()) {
            hook_.On("hold", "CreateInstance_V2", [this](ModuleCall&) {
                reader_inside_.Open();
                reader_released_.Wait();
            });
            reader_ = std::make_unique<JoiningThread>([this] { Create("hold", held_); });
            reader_inside_.Wait();
        }
        writer_ = std::make_unique<JoiningThread>([this] {
            writer_id_ = std::this_thread::get_id();
            RequireResult(
                LifeCycle::Get()->provider().RegisterPlugin("writer", "/nowhere/w.so", true),
                VESSA_OK, "writer");
        });
        writer_waits_.Wait();
    }

    std::string Call() {
        switch (cell_.call) {
            case Export::kInit:
                return CallInit();
            case Export::kUninit:
                ran_before_ = IsRunning();
                VESSA_Uninit();
                ran_inside_ = IsRunning();
                return "";  // told when the slot is left
            case Export::kCreate:
                return ResultName(VESSA_CreateInstance(Other(), &made_, nullptr));
            case Export::kCreateOwn:
                return CallCreateOwn();
            case Export::kDestroy:
                return CallDestroy(other_);
            case Export::kDestroyOwn:
                return CallDestroyOwn();
            case Export::kDestroyLast:
                return CallDestroy(last_);
            case Export::kQuery:
                return CallQuery(other_);
            case Export::kQueryOwn:
                return CallQuery(own_);
            case Export::kAttribute:
                return CallAttribute();
            case Export::kAllFkeys:
                return CallAllFkeys();
            case Export::kReleaseFkeys:
                return CallReleaseFkeys();
        }
        return "no such call";
    }

    std::string CallInit() {
        const int result = VESSA_Init();
        users_ += result == VESSA_OK ? 1 : 0;
        return ResultName(result);
    }
    std::string CallCreateOwn() {
        void* instance = nullptr;
        const int result = VESSA_CreateInstance("m", &instance, nullptr);
        if (result == VESSA_OK) made_ = instance;
        return ResultName(result);
    }
    std::string CallDestroy(void*& instance) {
        const int result = VESSA_DestroyInstance(instance, nullptr);
        if (result == VESSA_OK) instance = nullptr;
        return ResultName(result);
    }
    // Of a slot in which the application destroys it, only the second destroy counts here.
    std::string CallDestroyOwn() {
        if (Is(Reached::kConflict) || slot_.IsQuery()) return CallDestroy(own_);
        return ResultName(VESSA_DestroyInstance(own_, nullptr));
    }
    std::string CallQuery(void* instance) {
        void* found = nullptr;
        const int result = VESSA_QueryInterface(instance, "iface", &found, nullptr);
        Require((result == VESSA_OK) == (found != nullptr),
                "the interface does not fit the result");
        return ResultName(result);
    }
    std::string CallAttribute() {
        char value[256] = "";
        unsigned int length = sizeof value;
        const int result = VESSA_QueryConfigAttribute(Other(), "file", value, &length);
        Require(result != VESSA_OK || value == "./" + std::string(Other()) + MODULE_SUFFIX,
                std::string("the attribute is ") + value);
        return ResultName(result);
    }
    std::string CallAllFkeys() {
        char** fkeys = nullptr;
        unsigned int count = 0;
        const int result = VESSA_QueryAllFkeys(&fkeys, &count);
        Require((count == 0) == slot_.IsAfterStop(), "declared keys: " + std::to_string(count));
        RequireResult(VESSA_ReleaseAllFkeys(fkeys, count), VESSA_OK, "release");
        return ResultName(result);
    }
    std::string CallReleaseFkeys() {
        if (fkeys_ == nullptr)
            RequireResult(VESSA_QueryAllFkeys(&fkeys_, &fkey_count_), VESSA_OK, "keys");
        const int result = VESSA_ReleaseAllFkeys(fkeys_, fkey_count_);
        fkeys_ = nullptr;
        return ResultName(result);
    }

    // After the slot: everything is given back, and the library is as before the cell.
    void Finish() {
        if (IsCall(Export::kUninit)) {
            outcome_ = "nothing";
            if (ran_before_ && !IsRunning()) outcome_ = ran_inside_ ? "put off" : "stops";
        }
        if (writer_) FinishWriter();
        int stops = 0;
        for (; IsRunning() && stops < 3; ++stops) VESSA_Uninit();
        const bool stopped = outcome_ == "put off" || outcome_ == "stops";
        const bool had_user = !Is(Reached::kStop) && !slot_.IsAfterStop();
        Require(stops == (had_user && !stopped ? 1 : 0) + users_,
                "it took " + std::to_string(stops) + " times to stop");
        for (void** instance : {&own_, &other_, &last_, &made_, &held_}) Destroy(*instance);
        if (fkeys_ != nullptr) VESSA_ReleaseAllFkeys(fkeys_, fkey_count_);
        if (outcome_ == "put off" && slot_.IsOnScanningThread() && !cell_.on_own_thread)
            JoinScanningThread();
        Require(LifeCycle::Get()->IsQuiet(), "something is left in the library");
        const auto census = Runtime::Census();
        Require(census.modules == 0 && census.threads == 0 && census.folders == 0,
                "modules, threads or folders are left");
    }

    // A stop on the scanning thread leaves its handle to whoever starts the next one.
    void JoinScanningThread() {
        Require(Runtime::Census().threads == 1, "the scanning thread is not left");
        RequireResult(VESSA_Init(), VESSA_OK, "next start");
        VESSA_Uninit();
    }

    void FinishWriter() {
        writer_->Join();
        if (reader_) reader_->Join();
        runtime_.Before(Tova::SemTimedWait, nullptr);
        RequireResult(LifeCycle::Get()->provider().UnregisterPlugin("writer"), VESSA_OK,
                      "writer's end");
    }

    const Cell cell_;
    const Slot& slot_ = cell_.slot;
    const CellTimes times_;
    const Planted planted_;
    std::string outcome_;
    std::string problems_;
    bool ran_before_ = false;
    bool ran_inside_ = false;
    int users_ = 0;  // that the cell's call has added
    void* own_ = nullptr;
    void* other_ = nullptr;
    void* last_ = nullptr;
    void* made_ = nullptr;
    void* held_ = nullptr;
    char** fkeys_ = nullptr;
    unsigned int fkey_count_ = 0;
    std::atomic<bool> entered_{false};
    Gate reader_inside_;
    Gate reader_released_;
    Gate writer_waits_;
    std::atomic<std::thread::id> writer_id_{};
    World world_;
    Runtime runtime_;
    ModuleHook hook_;
    std::unique_ptr<JoiningThread> reader_;
    std::unique_ptr<JoiningThread> writer_;
};

std::string CreateAndDestroy(const char* fkey) {
    void* instance = nullptr;
    const int result = VESSA_CreateInstance(fkey, &instance, nullptr);
    if (instance != nullptr) VESSA_DestroyInstance(instance, nullptr);
    return ResultName(result);
}

}  // namespace

std::string RunCross(bool on_two_threads, int milliseconds) {
    Gate a_inside;
    Gate b_inside;
    World world;
    ModuleHook hook;
    world.AddDelayed("a");
    world.AddDelayed("b");
    VESSA_Init();
    std::string inner;
    const auto use = [&](Gate& own, const Gate& others, const char* fkey) {
        own.Open();
        while (on_two_threads && !others.IsOpen()) std::this_thread::yield();
        inner += CreateAndDestroy(fkey);
    };
    hook.On("a", "Init", [&](ModuleCall&) { use(a_inside, b_inside, "b"); });
    hook.On("b", "Init", [&](ModuleCall&) {
        if (on_two_threads) use(b_inside, a_inside, "a");
    });
    Watch(milliseconds, true);
    {
        std::string of_b = "OK";
        JoiningThread first([&] { inner += CreateAndDestroy("a"); });
        JoiningThread second([&] { of_b = on_two_threads ? CreateAndDestroy("b") : "OK"; });
    }
    Watch(0, false);
    VESSA_Uninit();
    return inner == "OKOK" ? "OK" : inner;
}

std::string RunCell(const Cell& cell, const CellTimes& times, Planted planted) {
    return CellRun(cell, times, planted).Run();
}

}  // namespace reentrancy
