// What is written when a plug-in goes while instances of it live.
#include <gtest/gtest.h>

#include "TestPlatform.h"
#include "transcript/Transcript.h"

namespace {

using namespace transcript;
using vessa_test::Install;
using vessa_test::ListFile;

// A running world with one live instance of "codec", and an empty list file beside its own.
class DeferredUnload : public testing::Test {
  protected:
    DeferredUnload() {
        module_ = Install(world_.dir, "good_v2", "codec" MODULE_SUFFIX);
        text_ = ListFile().Plugin("codec", "./codec" MODULE_SUFFIX).Text();
        codec_ = {"codec", module_, world_.dir.Write("tarnet.xml", text_)};
        world_.dir.Write("z/tarnet.xml", ListFile().Text());
        world_.Start();
        instance_ = world_.Create("codec");
        world_.log.Clear();
    }

    // The file goes; the plug-in is only marked.
    void RemoveFile() {
        world_.dir.Remove("tarnet.xml");
        world_.Scan();
    }

    Lines LastInstanceGoes() const {
        return InstanceGoes(codec_, 0) +
               Lines{
                   "3 destroy instance succeeded, and need unload plugin, instance {*instance}, "
                   "fkey codec, plugin file path " +
                   module_} +
               ModuleIsUnloaded(module_) +
               Lines{"3 unload plugin succeeded, fkey codec, file path " + module_ +
                     ", delay load false"};
    }

    World world_;
    std::string module_;
    std::string text_;
    Declared codec_;
    void* instance_ = nullptr;
};

TEST_F(DeferredUnload, TheLastInstanceUnloads) {
    RemoveFile();
    EXPECT_TRUE(world_.log.Is(Round({"3 param fkey = codec", UnloadIsPutOff(codec_),
                                     "3 unregister plugin succeeded, " + Described(codec_) +
                                         ", config file path " + codec_.list})));

    world_.log.Clear();
    EXPECT_EQ(world_.Destroy(instance_), 0);
    EXPECT_TRUE(world_.log.Is(LastInstanceGoes()));

    world_.log.Clear();
    ASSERT_TRUE(world_.coordinator.Shutdown());
    EXPECT_TRUE(world_.log.Is(Stops(world_.Root(), {})));
}

TEST_F(DeferredUnload, OtherInstancesOnlyGo) {
    void* const second = world_.Create("codec");
    RemoveFile();
    world_.log.Clear();
    EXPECT_EQ(world_.Destroy(second), 0);
    EXPECT_TRUE(world_.log.Is(InstanceIsDestroyed(codec_, 1)));
    world_.log.Clear();
    EXPECT_EQ(world_.Destroy(instance_), 0);
    EXPECT_TRUE(world_.log.Is(LastInstanceGoes()));
}

TEST_F(DeferredUnload, NewInstancesAreRefusedMeanwhile) {
    RemoveFile();
    world_.log.Clear();
    void* refused = nullptr;
    int plugin_error = 1;
    EXPECT_EQ(world_.provider().CreateInstance("codec", refused, plugin_error), -2147483645);
    EXPECT_EQ(refused, nullptr);
    EXPECT_TRUE(
        world_.log.Is({"2 param fkey = codec",
                       "4 plugin already unregistered, fkey codec, plugin file path " + module_}));
    EXPECT_EQ(world_.Destroy(instance_), 0);
}

TEST_F(DeferredUnload, ARegistrationBeforeTheUnloadKeepsTheModule) {
    RemoveFile();
    world_.dir.Write("tarnet.xml", text_);
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(
        Round(ListIsRead(codec_.list, text_, {module_}) +
              IsRegistered(
                  codec_, {"4 plugin already unregistered, but not unload yet, now register again, "
                           "plugin fkey codec, file path " +
                           module_}))));

    world_.log.Clear();
    EXPECT_EQ(world_.Destroy(instance_), 0);
    EXPECT_TRUE(world_.log.Is(InstanceIsDestroyed(codec_, 0)));

    world_.log.Clear();
    ASSERT_TRUE(world_.coordinator.Shutdown());
    EXPECT_TRUE(world_.log.Is(
        Stops(world_.Root(), IsUnregisteredAtStop(codec_, ModuleIsUnloaded(module_)))));
}

TEST_F(DeferredUnload, ARegistrationOfAnotherModuleBeforeTheUnloadIsRefused) {
    RemoveFile();
    const std::string other = Install(world_.dir, "good_v2", "other" MODULE_SUFFIX);
    const std::string text = ListFile().Plugin("codec", "./other" MODULE_SUFFIX).Text();
    world_.dir.Write("tarnet.xml", text);
    const Lines refused =
        IsRefused({"codec", other, codec_.list}, "-2147483635/FFFFFFFF8000000D",
                  {"5 plugin conflict, plugin fkey already exists, fkey codec, param file_path " +
                   other + ", registered plugin file path " + module_});
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(Round(ListIsRead(codec_.list, text, {other}) + refused + refused)));

    // Free again after the unload, and taken with the next round, whatever that is about.
    EXPECT_EQ(world_.Destroy(instance_), 0);
    const std::string empty = ListFile().Text();
    const std::string added = world_.dir.Write("y/tarnet.xml", empty);
    world_.Scan();
    EXPECT_TRUE(
        world_.log.Is(Round(ListIsRead(added, empty) +
                            IsRegistered({"codec", other, codec_.list}, ModuleIsLoaded(other)))));
}

TEST_F(DeferredUnload, TheStopLeavesLiveInstancesToTheirOwner) {
    ASSERT_TRUE(world_.coordinator.Shutdown());
    EXPECT_TRUE(world_.log.Is(
        Stops(world_.Root(), {"3 param fkey = codec", UnloadIsPutOff(codec_),
                              "3 unregister plugin succeeded, " + Described(codec_)})));

    world_.log.Clear();
    void* found = nullptr;
    int plugin_error = 1;
    EXPECT_EQ(world_.provider().QueryInterface(instance_, "iface", found, plugin_error), 0);
    EXPECT_TRUE(world_.log.Is(
        {"2 param instance = {*instance}, ikey = iface",
         "2 param instance = {*instance}, ikey = iface",
         "2 query plugin interface succeeded, interface {*iface}, instance {*instance}, ikey "
         "iface, plugin {*plugin}, plugin file path " +
             module_,
         "2 query plugin interface succeeded, instance {*instance}, ikey iface, interface "
         "{*iface}, fkey codec, plugin file path " +
             module_}));

    world_.log.Clear();
    EXPECT_EQ(world_.Destroy(instance_), 0);
    EXPECT_TRUE(world_.log.Is(LastInstanceGoes()));
}

TEST_F(DeferredUnload, ASharedModuleStaysForTheOthers) {
    const std::string text = ListFile().Plugin("second", "../codec" MODULE_SUFFIX).Text();
    const Declared second{"second", module_, world_.dir.Write("z/tarnet.xml", text)};
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(Round(
        ListIsRead(second.list, text, {module_}) +
        IsRegistered(second,
                     Lines{"4 the same plugin file path, different plugin filenames, fkey second, "
                           "registered fkey codec, plugin file path " +
                           module_} +
                         ModuleIsShared(module_, 2)))));
    RemoveFile();
    world_.log.Clear();
    EXPECT_EQ(world_.Destroy(instance_), 0);
    EXPECT_TRUE(world_.log.Is(
        InstanceGoes(codec_, 0) +
        Lines{"3 destroy instance succeeded, and need unload plugin, instance {*instance}, fkey "
              "codec, plugin file path " +
              module_} +
        ModuleIsKept(module_, 1) +
        Lines{"3 unload plugin succeeded, fkey codec, file path " + module_ +
              ", delay load false"}));
}

}  // namespace
