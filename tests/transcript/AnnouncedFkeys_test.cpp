// What the fkeys write that a module announces by itself.
#include <gtest/gtest.h>

#include "TestPlatform.h"
#include "transcript/Transcript.h"

namespace {

using namespace transcript;
using vessa_test::Install;
using vessa_test::ListFile;

const char* const kEmptyFkey = "-2147483647/FFFFFFFF80000001";

ListFile::Attributes Announcing() {
    return {{"loadfkeys", "true"}};
}

// The module is asked twice: how many, and which.
Lines Asked(const std::string& fkey) {
    return {"2 param fkey = " + fkey, "2 param fkey = " + fkey};
}

std::string SamePath(const std::string& fkey, const std::string& registered,
                     const std::string& path) {
    return "4 the same plugin file path, different plugin filenames, fkey " + fkey +
           ", registered fkey " + registered + ", plugin file path " + path;
}

// A list file that declares the fkey "p" with an announcing module, and one beside it that
// declares nothing, so that a removal of the first is reported.
class AnnouncedFkeys : public testing::Test {
  protected:
    void Declare(const std::string& module) {
        module_ = Install(world_.dir, module, module + MODULE_SUFFIX);
        text_ = ListFile().Plugin("p", "./" + module + MODULE_SUFFIX, Announcing()).Text();
        list_ = world_.dir.Write("tarnet.xml", text_);
        p_ = {"p", module_, list_};
        other_ = world_.dir.Write("z/tarnet.xml", ListFile().Text());
    }

    Declared Further(const std::string& fkey) const { return {fkey, module_, list_}; }

    // The start with these lines after the registration of "p" itself.
    void ExpectStart(const Lines& announced) {
        ASSERT_TRUE(world_.coordinator.Run());
        EXPECT_TRUE(world_.log.Is(Starts(
            world_.Root(),
            Round(ListIsRead(list_, text_, {module_}) + ListIsRead(other_, ListFile().Text()) +
                  IsRegistered(p_, ModuleIsLoaded(module_)) + announced))));
    }

    void ExpectRemoval(const Lines& round) {
        world_.dir.Remove("tarnet.xml");
        world_.Scan();
        EXPECT_TRUE(world_.log.Is(Round(round)));
    }

    World world_;
    std::string module_;
    std::string text_;
    std::string list_;
    std::string other_;
    Declared p_;
};

TEST_F(AnnouncedFkeys, ComeAfterTheirPluginAndGoBeforeIt) {
    Declare("map_two");
    ExpectStart(
        Asked("p") +
        IsRegistered(Further("a"),
                     Lines{SamePath("a", "p", module_)} + ModuleIsShared(module_, 2)) +
        IsRegistered(Further("b"), Lines{SamePath("b", "a", module_), SamePath("b", "p", module_)} +
                                       ModuleIsShared(module_, 3)));
    ExpectRemoval(Asked("p") + IsUnregistered(Further("a"), ModuleIsKept(module_, 2)) +
                  IsUnregistered(Further("b"), ModuleIsKept(module_, 1)) +
                  IsUnregistered(p_, ModuleIsUnloaded(module_)));
}

TEST_F(AnnouncedFkeys, AreServedUnderTheirOwnNames) {
    Declare("map_two");
    world_.Start();
    void* const instance = world_.Create("a");
    EXPECT_TRUE(world_.log.Is(InstanceIsCreated(Further("a"), 1)));
    EXPECT_EQ(world_.Destroy(instance), 0);
}

TEST_F(AnnouncedFkeys, GoWithTheStopInTheOrderOfTheirKeys) {
    Declare("map_two");
    world_.Start();
    ASSERT_TRUE(world_.coordinator.Shutdown());
    EXPECT_TRUE(world_.log.Is(
        Stops(world_.Root(), IsUnregisteredAtStop(Further("a"), ModuleIsKept(module_, 2)) +
                                 IsUnregisteredAtStop(Further("b"), ModuleIsKept(module_, 1)) +
                                 IsUnregisteredAtStop(p_, ModuleIsUnloaded(module_)))));
}

TEST_F(AnnouncedFkeys, AreNoneForAModuleThatAnnouncesNone) {
    Declare("good_v2");
    ExpectStart({"2 param fkey = p"});
    ExpectRemoval(Lines{"2 param fkey = p"} + IsUnregistered(p_, ModuleIsUnloaded(module_)));
}

TEST_F(AnnouncedFkeys, AreNoneForAModuleWithoutTheOperation) {
    Declare("no_map");
    ExpectStart({"2 param fkey = p", "5 plugin ops GetPluginMapFkeys should not be NULL"});
}

TEST_F(AnnouncedFkeys, AreNoneForANegativeCount) {
    Declare("map_negative");
    ExpectStart({"2 param fkey = p"});
}

TEST_F(AnnouncedFkeys, AnAnswerThatFailsIsReportedAndItsCountUsed) {
    Declare("map_fails_first");
    ExpectStart(
        Lines{"2 param fkey = p", "5 get plugin map fkeys failed 3/3, fkey p ",
              "2 param fkey = p"} +
        IsRegistered(Further("a"),
                     Lines{SamePath("a", "p", module_)} + ModuleIsShared(module_, 2)) +
        IsRegistered(Further("b"), Lines{SamePath("b", "a", module_), SamePath("b", "p", module_)} +
                                       ModuleIsShared(module_, 3)));
}

// The result of the second answer counts for nothing; entries that were not filled in are
// empty fkeys.
TEST_F(AnnouncedFkeys, AreEmptyWhereTheModuleFillsNothingIn) {
    Declare("map_fails_second");
    ExpectStart(Asked("p") +
                Lines{"4 plugin config conflict, fkey , file path " + module_ +
                      ", config file path " + list_ + ", registered fkey , registered file path " +
                      module_ + ", config file path " + list_} +
                IsRefused(Further(""), kEmptyFkey, {"5 param fkey should not be empty"}));
}

TEST_F(AnnouncedFkeys, AnOperationThatThrowsIsReported) {
    Declare("throw_map");
    ExpectStart({"2 param fkey = p", "5 get plugin map fkeys failed -1/FFFFFFFFFFFFFFFF, fkey p "});
}

TEST_F(AnnouncedFkeys, AnEmptyOneIsRefusedWhereverARoundComes) {
    Declare("map_empty_key");
    const Lines refused = IsRefused(Further(""), kEmptyFkey, {"5 param fkey should not be empty"});
    ExpectStart(Asked("p") + refused +
                IsRegistered(Further("a"),
                             Lines{SamePath("a", "p", module_)} + ModuleIsShared(module_, 2)));

    const std::string text = ListFile().Text();
    const std::string added = world_.dir.Write("y/tarnet.xml", text);
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(Round(ListIsRead(added, text) + refused + refused)));
}

TEST_F(AnnouncedFkeys, OneThatIsAnnouncedTwiceIsRegisteredOnce) {
    Declare("map_repeated");
    ExpectStart(Asked("p") +
                Lines{"4 plugin config conflict, fkey a, file path " + module_ +
                      ", config file path " + list_ + ", registered fkey a, registered file path " +
                      module_ + ", config file path " + list_} +
                IsRegistered(Further("a"),
                             Lines{SamePath("a", "p", module_)} + ModuleIsShared(module_, 2)));
    ExpectRemoval(Asked("p") + IsUnregistered(Further("a"), ModuleIsKept(module_, 1)) +
                  IsUnregistered(p_, ModuleIsUnloaded(module_)));
}

TEST_F(AnnouncedFkeys, ADelayLoadedPluginIsNotAsked) {
    const std::string module = Install(world_.dir, "map_two", "map_two" MODULE_SUFFIX);
    const std::string text =
        ListFile()
            .Plugin("p", "./map_two" MODULE_SUFFIX, {{"delayload", "true"}, {"loadfkeys", "true"}})
            .Text();
    const Declared p{"p", module, world_.dir.Write("tarnet.xml", text), true};
    ASSERT_TRUE(world_.coordinator.Run());
    EXPECT_TRUE(world_.log.Is(
        Starts(world_.Root(), Round(ListIsRead(p.list, text, {module}) + IsRegistered(p, {})))));
}

TEST_F(AnnouncedFkeys, APluginWhoseModuleDidNotLoadIsReported) {
    const std::string module = world_.dir.Path("gone" MODULE_SUFFIX);
    const std::string text = ListFile().Plugin("p", "./gone" MODULE_SUFFIX, Announcing()).Text();
    const Declared p{"p", module, world_.dir.Write("tarnet.xml", text)};
    const std::string code = "-2147483646/FFFFFFFF80000002";
    ASSERT_TRUE(world_.coordinator.Run());
    EXPECT_TRUE(world_.log.Is(Starts(
        world_.Root(),
        Round(ListIsRead(p.list, text, {module}) +
              IsRegistered(
                  p, ModuleIsLookedAt(module) +
                         Lines{"5 plugin file does not exist, file path " + module,
                               "5 load plugin dso failed, error " + code +
                                   ", filename gone" MODULE_SUFFIX
                                   ", folder path gone" MODULE_SUFFIX} +
                         LoadFails(module, code) +
                         Lines{"5 load plugin failed " + code + ", fkey p, file path " + module}) +
              Lines{"2 param fkey = p",
                    "5 unexpected, plugin_ should not be NULL, plugin file path " + module,
                    "5 get plugin map fkeys failed -1/FFFFFFFFFFFFFFFF, fkey p "}))));
}

TEST_F(AnnouncedFkeys, APluginThatWasRefusedIsAskedUnderItsFkeyAllTheSame) {
    Declare("map_two");
    world_.Start();
    const std::string module = Install(world_.dir, "good_v2", "late/late" MODULE_SUFFIX);
    const std::string text = ListFile().Plugin("p", "./late" MODULE_SUFFIX, Announcing()).Text();
    const std::string list = world_.dir.Write("late/tarnet.xml", text);
    const auto refused = [&](const std::string& fkey) {
        return IsRefused(
            {fkey, module, list}, "-2147483635/FFFFFFFF8000000D",
            {"5 plugin conflict, plugin fkey already exists, fkey " + fkey + ", param file_path " +
             module + ", registered plugin file path " + module_});
    };
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(Round(ListIsRead(list, text, {module}) + refused("p") + Asked("p") +
                                    refused("a") + refused("b") + refused("p"))));
}

}  // namespace
