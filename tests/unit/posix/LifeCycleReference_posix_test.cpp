// The library's reference to itself, from a start to the end of its stop. The library is linked into
// this program, which cannot be referred to: the loader's functions stand in for a library.
#include <dlfcn.h>

#include "TestPlatform.h"
#include "support/ModuleHook.h"
#include "support/Runtime.h"
#include "unit/LifeCycleWorld.h"

namespace {

int references = 0;
int image = 0;

}  // namespace

STAND_IN_C(void*, dlopen)(const char* path, int flags) noexcept {
    static const auto real = vessa_test::FunctionBehind<void*(const char*, int)>("dlopen");
    if ((flags & RTLD_NOLOAD) == 0) return real(path, flags);
    ++references;
    return &image;
}

STAND_IN_C(int, dlclose)(void* module) noexcept {
    static const auto real = vessa_test::FunctionBehind<int(void*)>("dlclose");
    if (module != &image) return real(module);
    --references;
    return 0;
}

namespace vessa_test {
namespace {

TEST_F(LifeCycleTest, HoldsOneReferenceToItselfFromAStartToTheEndOfItsStop) {
    World world;
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(VESSA_Init(), VESSA_OK);
        ASSERT_EQ(VESSA_Init(), VESSA_OK);
        EXPECT_EQ(references, 1);
        VESSA_Uninit();
        EXPECT_EQ(references, 1);
        VESSA_Uninit();
        EXPECT_EQ(references, 0);
    }
}

TEST_F(LifeCycleTest, KeepsItsReferenceAfterAStopOnTheScanningThreadUpToTheNextStop) {
    World world;
    Runtime runtime;
    ModuleHook hook;
    hook.On("m", "Init", [](ModuleCall&) { VESSA_Uninit(); });
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    world.Add("m");
    EXPECT_FALSE(runtime.Tick());
    EXPECT_FALSE(LifeCycle::Get()->coordinator().IsRunning());
    EXPECT_EQ(references, 1);
    hook.Off("m", "Init");
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    EXPECT_EQ(references, 1);
    VESSA_Uninit();
    EXPECT_EQ(references, 0);
}

}  // namespace
}  // namespace vessa_test
