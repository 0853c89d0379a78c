// The exports from plain C, with real module files.
#include <gtest/gtest.h>

#include "capi/CapiWorld.h"

extern "C" int HeadersInCpp_ResultsInBoth(void);

namespace vessa_test {
namespace {

#define EXPECT_SUCCESS(result)             \
  do {                                     \
    const ChildResult& child = (result);   \
    EXPECT_TRUE(child.Exited(0)) << child; \
  } while (false)

TEST(PublicHeaders, AreTheSameInBothLanguages) {
    EXPECT_EQ(HeadersInCpp_ResultsInBoth(), 14);
}

TEST(ExportsInC, HaveTheDocumentedResultCodes) {
    EXPECT_SUCCESS(CapiWorld().Run(CAPI_CALLS, {"codes"}));
}

TEST(ExportsInC, CheckEveryArgumentBeforeDuringAndAfterARun) {
    CapiWorld world;
    world.Add("a", "good_v2");
    EXPECT_SUCCESS(world.Run(CAPI_CALLS, {"arguments"}));
}

TEST(ExportsInC, ServeAVersion1ModuleForItsWholeLife) {
    CapiWorld world;
    world.Add("a", "good_v1");
    EXPECT_SUCCESS(world.Run(CAPI_CALLS, {"life_v1"}));
}

TEST(ExportsInC, ServeAVersion2ModuleForItsWholeLife) {
    CapiWorld world;
    world.Add("a", "good_v2");
    EXPECT_SUCCESS(world.Run(CAPI_CALLS, {"life_v2"}));
}

TEST(ExportsInC, ServeADelayLoadedModuleForItsWholeLife) {
    CapiWorld world;
    world.AddDelayed("a", "good_v2");
    EXPECT_SUCCESS(world.Run(CAPI_CALLS, {"life_v2"}));
}

TEST(ExportsInC, ReportWhatAModuleCannotDo) {
    CapiWorld world;
    for (const char* module : {"create_fails", "create_fails_writing", "throw_create", "no_entry",
                               "entry_null_v2", "no_create_v1", "init_fails", "throw_init",
                               "query_fails", "destroy_fails", "create_null", "same_instance"})
        world.AddDelayed(module, module);
    world.AddDelayed("unloadable", kUnloadableModule);
    world.AddDelayed("no_file", "good_v2");
    world.dir.Remove("tarnet/no_file/no_file" MODULE_SUFFIX);
    EXPECT_SUCCESS(world.Run(CAPI_CALLS, {"failures"}));
}

TEST(ExportsInC, ReportAModuleWhoseNameAnotherOneKeepsAfterAFailedUninit) {
    CapiWorld world;
    world.Add("a", "uninit_fails");
    Install(world.dir, "uninit_fails", "tarnet/b/a" MODULE_SUFFIX);
    EXPECT_SUCCESS(world.Run(CAPI_CALLS, {"conflict"}));
}

TEST(ExportsInC, CopyAttributesToTheByte) {
    CapiWorld world;
    world.Add("a", "good_v2", {{"note", "abc"}, {"empty", ""}, {"text", "\xC3\xA4<&>\""}});
    world.dir.Write("tarnet/p1/tarnet.xml",
                    ListFile().Plugin("twice", "./x" MODULE_SUFFIX, {{"from", "first"}}).Text());
    world.dir.Write("tarnet/p2/tarnet.xml",
                    ListFile().Plugin("twice", "./x" MODULE_SUFFIX, {{"from", "second"}}).Text());
    EXPECT_SUCCESS(world.Run(CAPI_CALLS, {"attributes"}));
}

TEST(ExportsInC, ListEveryDeclaredFkeyInOrder) {
    CapiWorld world;
    world.dir.Write("tarnet/tarnet.xml",
                    ListFile()
                        .Plugin("a", "./a" MODULE_SUFFIX, {{"delayload", "true"}})
                        .Plugin("twice", "./t" MODULE_SUFFIX)
                        .Plugin("twice", "./t" MODULE_SUFFIX)
                        .Text());
    world.dir.Write("tarnet/x/tarnet.xml", ListFile()
                                               .Plugin("refused", "./t" MODULE_SUFFIX)
                                               .Plugin("no_file", "./n" MODULE_SUFFIX)
                                               .Text());
    EXPECT_SUCCESS(world.Run(CAPI_CALLS, {"fkeys"}));
}

TEST(ExportsInC, WorkWithoutARoot) {
    CapiWorld world;
    world.dir.Remove("tarnet");
    EXPECT_SUCCESS(world.Run(CAPI_CALLS, {"no_root"}));
}

}  // namespace
}  // namespace vessa_test
