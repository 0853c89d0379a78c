// What registry conflicts and instance conflicts write.
#include <gtest/gtest.h>

#include "TestPlatform.h"
#include "transcript/Transcript.h"

namespace {

using namespace transcript;
using vessa_test::Install;
using vessa_test::ListFile;

const char* const kConflict = "-2147483635/FFFFFFFF8000000D";

ListFile::Attributes Delayed() {
    return {{"delayload", "true"}};
}

TEST(Conflict, OfOneFkeyInTwoListFilesIsTriedTwiceInEachRound) {
    World world;
    const std::string first_module = Install(world.dir, "good_v2", "a/one" MODULE_SUFFIX);
    const std::string second_module = Install(world.dir, "good_v2", "b/two" MODULE_SUFFIX);
    const std::string first_text =
        ListFile().Plugin("codec", "./one" MODULE_SUFFIX, Delayed()).Text();
    const std::string second_text =
        ListFile().Plugin("codec", "./two" MODULE_SUFFIX, Delayed()).Text();
    const Declared first{"codec", first_module, world.dir.Write("a/tarnet.xml", first_text), true};
    const Declared second{"codec", second_module, world.dir.Write("b/tarnet.xml", second_text),
                          true};
    const Lines refused =
        IsRefused(second, kConflict,
                  {"5 plugin conflict, plugin fkey already exists, fkey codec, param file_path " +
                   second_module + ", registered plugin file path " + first_module});

    ASSERT_TRUE(world.coordinator.Run());
    EXPECT_TRUE(world.log.Is(
        Starts(world.Root(), Round(ListIsRead(first.list, first_text, {first_module}) +
                                   ListIsRead(second.list, second_text, {second_module}) +
                                   IsRegistered(first, {}) + refused + refused))));

    // A later round about something else tries it again, twice.
    const std::string third_text = ListFile().Text();
    const std::string third = world.dir.Write("c/tarnet.xml", third_text);
    world.Scan();
    EXPECT_TRUE(world.log.Is(Round(ListIsRead(third, third_text) + refused + refused)));

    // When the first one goes, the second takes its place in the same round.
    world.dir.Remove("a/tarnet.xml");
    world.Scan();
    EXPECT_TRUE(world.log.Is(Round(IsUnregistered(first, {}) + IsRegistered(second, {}))));
}

TEST(Conflict, OfOneFileNameInTwoFoldersIsRefused) {
    World world;
    const std::string first_module = Install(world.dir, "good_v2", "a/codec" MODULE_SUFFIX);
    const std::string second_module = Install(world.dir, "good_v2", "b/codec" MODULE_SUFFIX);
    const std::string text = ListFile()
                                 .Plugin("one", "./a/codec" MODULE_SUFFIX, Delayed())
                                 .Plugin("two", "./b/codec" MODULE_SUFFIX, Delayed())
                                 .Text();
    const std::string list = world.dir.Write("tarnet.xml", text);
    const Declared one{"one", first_module, list, true};
    const Declared two{"two", second_module, list, true};
    const Lines refused = IsRefused(
        two, kConflict,
        {"5 plugin conflict, the same plugin filename, different plugin file paths, fkey two, file "
         "path " +
         second_module + ", registered fkey one, registered plugin file path " + first_module});

    ASSERT_TRUE(world.coordinator.Run());
    EXPECT_TRUE(world.log.Is(
        Starts(world.Root(), Round(ListIsRead(list, text, {first_module, second_module}) +
                                   IsRegistered(one, {}) + refused + refused))));

    // Only what was registered is unregistered.
    world.log.Clear();
    ASSERT_TRUE(world.coordinator.Shutdown());
    EXPECT_TRUE(world.log.Is(Stops(world.Root(), IsUnregisteredAtStop(one, {}))));
}

TEST(Conflict, OfOneFkeyTwiceInOneListFileIgnoresTheSecond) {
    World world;
    const std::string first_module = Install(world.dir, "good_v2", "one" MODULE_SUFFIX);
    const std::string second_module = Install(world.dir, "good_v2", "two" MODULE_SUFFIX);
    const std::string text = ListFile()
                                 .Plugin("codec", "./one" MODULE_SUFFIX, Delayed())
                                 .Plugin("codec", "./two" MODULE_SUFFIX, Delayed())
                                 .Text();
    const std::string list = world.dir.Write("tarnet.xml", text);

    ASSERT_TRUE(world.coordinator.Run());
    EXPECT_TRUE(world.log.Is(
        Starts(world.Root(), Round(ListIsRead(list, text, {first_module, second_module}) +
                                   Lines{"4 plugin config conflict, fkey codec, file path " +
                                         second_module + ", config file path " + list +
                                         ", registered fkey codec, registered file path " +
                                         first_module + ", config file path " + list} +
                                   IsRegistered({"codec", first_module, list, true}, {})))));
}

TEST(Conflict, OneFkeyWithOneModuleInTwoListFilesIsAcceptedTwice) {
    World world;
    const std::string module = Install(world.dir, "good_v2", "m/codec" MODULE_SUFFIX);
    const std::string text = ListFile().Plugin("codec", module, Delayed()).Text();
    const Declared first{"codec", module, world.dir.Write("a/tarnet.xml", text), true};
    const Declared second{"codec", module, world.dir.Write("b/tarnet.xml", text), true};

    ASSERT_TRUE(world.coordinator.Run());
    EXPECT_TRUE(world.log.Is(
        Starts(world.Root(), Round(ListIsRead(first.list, text) + ListIsRead(second.list, text) +
                                   IsRegistered(first, {}) + IsRegistered(second, {})))));

    world.log.Clear();
    ASSERT_TRUE(world.coordinator.Shutdown());
    EXPECT_TRUE(world.log.Is(Stops(
        world.Root(),
        IsUnregisteredAtStop(first, {}) +
            Lines{
                "3 param fkey = codec",
                "4 unexpected, plugin collection does not contain the fkey, fkey codec",
                "4 unregister plugin failed -2147483647/FFFFFFFF80000001, fkey codec, file path " +
                    module + ", delay load true"})));
}

TEST(Conflict, AFailedUnregistrationBecauseOfAListFileIsAnError) {
    World world;
    const std::string module = Install(world.dir, "good_v2", "m/codec" MODULE_SUFFIX);
    const std::string text = ListFile().Plugin("codec", module, Delayed()).Text();
    const Declared first{"codec", module, world.dir.Write("a/tarnet.xml", text), true};
    const Declared second{"codec", module, world.dir.Write("b/tarnet.xml", text), true};
    world.dir.Write("c/tarnet.xml", ListFile().Text());
    world.Start();
    world.dir.Remove("a/tarnet.xml");
    world.dir.Remove("b/tarnet.xml");
    world.Scan();
    EXPECT_TRUE(world.log.Is(Round(
        IsUnregistered(first, {}) +
        Lines{"3 param fkey = codec",
              "4 unexpected, plugin collection does not contain the fkey, fkey codec",
              "5 unregister plugin failed -2147483647/FFFFFFFF80000001, fkey codec, file path " +
                  module + ", config file path " + second.list})));
}

TEST(Conflict, APathWithoutAFileNameIsRefusedInEachRound) {
    World world;
    const std::string text = ListFile().Plugin("codec", "/", Delayed()).Text();
    const Declared codec{"codec", "/", world.dir.Write("tarnet.xml", text), true};
    const Lines refused = IsRefused(codec, "-2147483647/FFFFFFFF80000001",
                                    {"5 param file_path does not contain filename, file_path /"});
    ASSERT_TRUE(world.coordinator.Run());
    EXPECT_TRUE(world.log.Is(
        Starts(world.Root(), Round(ListIsRead(codec.list, text) + refused + refused))));
}

TEST(Conflict, OfAnInstanceDestroysTheSecondOne) {
    World world;
    const std::string module = Install(world.dir, "same_instance", "same_instance" MODULE_SUFFIX);
    const Declared only{
        "only", module,
        world.dir.Write("tarnet.xml",
                        ListFile().Plugin("only", "./same_instance" MODULE_SUFFIX).Text())};
    world.Start();
    void* const first = world.Create("only");
    world.log.Clear();

    void* second = nullptr;
    int plugin_error = 1;
    EXPECT_EQ(world.provider().CreateInstance("only", second, plugin_error), -2147483634);
    EXPECT_EQ(second, first);
    EXPECT_EQ(plugin_error, 0);
    EXPECT_EQ(world.Destroy(first), 0);
    EXPECT_TRUE(world.log.Is(
        Lines{"2 param fkey = only",
              "2 create tarnet instance succeeded, instance {*instance}, plugin " + Object(module) +
                  ", instance counter 2, plugin file path " + module,
              "5 plugin instance conflict, instance {*instance}, fkey only, plugin file path " +
                  module + ", conflict plugin fkey only, file path " + module,
              "2 param instance = {*instance}",
              "2 destroy tarnet instance succeeded, instance {*instance}, plugin " +
                  Object(module) + ", instance counter 1, plugin file path " + module} +
        InstanceIsDestroyed(only, 0)));
}

}  // namespace
