#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "support/ModuleHook.h"
#include "support/Modules.h"
#include "support/Sync.h"
#include "tova.h"
#include "vessa/tarnet.h"

namespace vessa_test {
namespace {

class Loaded {
  public:
    explicit Loaded(const std::string& module) : handle_(TOVA_LoadDSo(ModulePath(module).c_str())) {
        if (handle_ == nullptr) throw std::runtime_error("not loaded");
    }
    ~Loaded() { TOVA_UnloadDSo(handle_); }
    Loaded(const Loaded&) = delete;
    Loaded& operator=(const Loaded&) = delete;

    const tarnet_export_table_v2* Table() const {
        return reinterpret_cast<tarnet_entry_v2_t>(TOVA_GetDsoSym(handle_, TARNET_ENTRY_V2))();
    }

  private:
    void* handle_;
};

TEST(ModuleHookTest, ReturnsAResultInTheModulesPlace) {
    const Loaded module("good_v2");
    const tarnet_export_table_v2* const table = module.Table();
    int made = 0;
    {
        ModuleHook hook;
        hook.On("good_v2", "Init", [](ModuleCall& call) {
            if (call.index == 2) call.Return(77);
        });
        hook.On("good_v2", "CreateInstance_V2", [&](ModuleCall& call) {
            EXPECT_STREQ(call.key, "k");
            *call.out = &made;
            call.Return(0);
        });
        hook.On("good_v2", "Entry", [](ModuleCall& call) { call.Return(0); });
        EXPECT_EQ(table->Init(), 0);
        EXPECT_EQ(table->Init(), 77);
        EXPECT_EQ(table->Init(), 0);
        void* instance = nullptr;
        EXPECT_EQ(table->CreateInstance_V2("k", &instance), 0);
        EXPECT_EQ(instance, &made);
        EXPECT_EQ(module.Table(), nullptr);
        EXPECT_EQ(hook.Count("good_v2", "Init"), 3);
        EXPECT_EQ(hook.Journal().back(), "Entry good_v2");
        hook.Off("good_v2", "Entry");
        EXPECT_EQ(module.Table(), table);
    }
    EXPECT_EQ(table->Init(), 0);
}

TEST(ModuleHookTest, PrefersTheModulesOwnHandlerToTheOneForAll) {
    const Loaded own("good_v2");
    const Loaded other("map_two");
    ModuleHook hook;
    hook.On("*", "Init", [](ModuleCall& call) { call.Return(1); });
    hook.On("good_v2", "Init", [](ModuleCall& call) { call.Return(2); });
    EXPECT_EQ(own.Table()->Init(), 2);
    EXPECT_EQ(other.Table()->Init(), 1);
}

TEST(ModuleHookTest, ThrowsThroughAModuleWrittenInC) {
    const Loaded module("good_v2");
    ModuleHook hook;
    hook.On("good_v2", "Uninit", [](ModuleCall&) { throw std::runtime_error("thrown"); });
    EXPECT_THROW(module.Table()->Uninit(), std::runtime_error);
}

TEST(ModuleHookTest, HoldsAThreadInsideTheModule) {
    const Loaded module("good_v2");
    const tarnet_export_table_v2* const table = module.Table();
    Gate inside;
    Gate go_on;
    ModuleHook hook;
    hook.On("good_v2", "Init", [&](ModuleCall&) {
        inside.Open();
        go_on.Wait();
    });
    JoiningThread thread([&] { EXPECT_EQ(table->Init(), 0); });
    inside.Wait();
    EXPECT_FALSE(thread.HasEnded());
    hook.WaitFor("Init good_v2");
    go_on.Open();
    thread.Join();
}

TEST(ModuleHookTest, AllowsOneAtATime) {
    ModuleHook hook;
    EXPECT_THROW(ModuleHook(), std::logic_error);
}

}  // namespace
}  // namespace vessa_test
