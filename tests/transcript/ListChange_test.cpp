// What each kind of change of a list file writes.
#include <gtest/gtest.h>

#include "TestPlatform.h"
#include "transcript/Transcript.h"
#include "unit/LoggedCode.h"

namespace {

using namespace transcript;
using vessa_test::Code;
using vessa_test::Install;
using vessa_test::kErrorIo;
using vessa_test::ListFile;

ListFile::Attributes Delayed() {
    return {{"delayload", "true"}};
}

// A running world with one list file that declares "codec", and an empty one beside it.
class ListChange : public testing::Test {
  protected:
    ListChange() {
        module_ = Install(world_.dir, "good_v2", "codec" MODULE_SUFFIX);
        list_ = world_.dir.Write("tarnet.xml",
                                 ListFile().Plugin("codec", "./codec" MODULE_SUFFIX).Text());
        codec_ = {"codec", module_, list_};
        world_.dir.Write("z/tarnet.xml", ListFile().Text());
        world_.Start();
    }

    World world_;
    std::string module_;
    std::string list_;
    Declared codec_;
};

TEST_F(ListChange, NoneWritesNothing) {
    world_.Scan();
    EXPECT_TRUE(world_.log.Is({}));
}

TEST_F(ListChange, AnAddedFileRegisters) {
    const std::string module = Install(world_.dir, "good_v1", "new/other" MODULE_SUFFIX);
    const std::string text = ListFile().Plugin("other", "./other" MODULE_SUFFIX).Text();
    const Declared other{"other", module, world_.dir.Write("new/tarnet.xml", text)};
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(
        Round(ListIsRead(other.list, text, {module}) +
              IsRegistered(
                  other,
                  ModuleIsMapped(module) +
                      Lines{"3 tarnet_handle " + Handle(module) +
                                ",Init {*}, Unint {*}, CreateInstance {*}, CreateInstance_V2 "
                                "{*},DestroyInstance {*}, QueryInterface {*}, GetAllInterfaceIkeys "
                                "{*}, GetFileVersion 0,",
                            "3 load plugin succeeded, plugin handle " + Handle(module) +
                                ", plugin folder " + Folder(module) +
                                ", plugin filename other" MODULE_SUFFIX
                                ", plugin file version 1.2.3 test, interface ikeys [iface]",
                            "3 load plugin succeeded, plugin filename other" MODULE_SUFFIX
                            ", reference counter 1, plugin path " +
                                module,
                            "3 load plugin succeeded, plugin " + Object(module) +
                                ", plugin file path " + module}))));
}

TEST_F(ListChange, ARemovedFkeyGoesBeforeAnAddedOneComes) {
    const std::string module = Install(world_.dir, "good_v2", "other" MODULE_SUFFIX);
    const std::string text = ListFile().Plugin("another", "./other" MODULE_SUFFIX).Text();
    world_.dir.Write("tarnet.xml", text);
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(Round(
        ListIsRead(list_, text, {module}) + IsUnregistered(codec_, ModuleIsUnloaded(module_)) +
        IsRegistered({"another", module, list_}, ModuleIsLoaded(module)))));
}

TEST_F(ListChange, OneModuleCanGoFromOneFkeyToAnotherInOneRound) {
    const std::string text = ListFile().Plugin("renamed", "./codec" MODULE_SUFFIX).Text();
    world_.dir.Write("tarnet.xml", text);
    world_.Scan();
    // It is unmapped and mapped again: another object, maybe another handle.
    EXPECT_TRUE(world_.log.Is(Round(
        ListIsRead(list_, text, {module_}) +
        IsUnregistered(codec_,
                       {"3 param dso_handle = {*}",
                        "3 unload plugin succeeded, plugin {*was}, plugin reference 0, plugin "
                        "filename codec" MODULE_SUFFIX ", plugin file path " +
                            module_,
                        "3 unload plugin succeeded, plugin {*was}, plugin file path " + module_}) +
        IsRegistered({"renamed", module_, list_}, ModuleIsLoaded(module_)))));
}

TEST_F(ListChange, AnotherPathOfAKeptFkeyIsOnlyReported) {
    const std::string module = Install(world_.dir, "good_v2", "other" MODULE_SUFFIX);
    std::string text = ListFile().Plugin("codec", "./other" MODULE_SUFFIX).Text();
    world_.dir.Write("tarnet.xml", text);
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(
        Round(ListIsRead(list_, text, {module}) +
              Lines{"4 config file changed, but not fkey, fkey codec, cur file path " + module +
                    ", cached file path " + module_})));

    // The old module keeps serving it.
    world_.log.Clear();
    void* const instance = world_.Create("codec");
    EXPECT_TRUE(world_.log.Is(InstanceIsCreated(codec_, 1)));
    EXPECT_EQ(world_.Destroy(instance), 0);

    // The list has the new path by now, so a second rewrite has nothing to report.
    text = ListFile().Plugin("codec", "./other" MODULE_SUFFIX, {{"vendor", "x"}}).Text();
    world_.dir.Write("tarnet.xml", text);
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(Round(ListIsRead(list_, text, {module}))));

    // When it goes, what was registered goes, and is what the log names.
    world_.dir.Remove("tarnet.xml");
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(Round(IsUnregistered(codec_, ModuleIsUnloaded(module_)))));
}

TEST_F(ListChange, OtherAttributesOfAKeptFkeyChangeNothing) {
    const std::string text = ListFile()
                                 .Plugin("codec", "./codec" MODULE_SUFFIX,
                                         {{"delayload", "true"}, {"loadfkeys", "true"}})
                                 .Text();
    world_.dir.Write("tarnet.xml", text);
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(Round(ListIsRead(list_, text, {module_}))));
}

TEST_F(ListChange, ATextThatDoesNotParseLeavesTheOldList) {
    const std::string text = "<vessa><plugin fkey=\"codec\"";
    world_.dir.Write("tarnet.xml", text);
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(Round({
        "2 param config_file_path = " + list_,
        "3 param file_path = " + list_,
        "2 file path " + list_ + ", config " + text,
        "2 param xml = " + text,
        "5 xmlDoc Parse failed, err[true] {*}, xml - " + text,
        "5 read plugin list failed, config file path " + list_,
        "4 read plugin list config failed, ignored, file path " + list_ + ", notify type 3",
    })));

    world_.log.Clear();
    EXPECT_EQ(world_.Destroy(world_.Create("codec")), 0);

    // The next text that parses is compared with the old list.
    const std::string repaired = ListFile().Text();
    world_.dir.Write("tarnet.xml", repaired);
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(
        Round(ListIsRead(list_, repaired) + IsUnregistered(codec_, ModuleIsUnloaded(module_)))));
}

TEST_F(ListChange, ATextOfAnotherKindLeavesTheOldList) {
    const std::string text = "<other/>";
    world_.dir.Write("tarnet.xml", text);
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(Round({
        "2 param config_file_path = " + list_,
        "3 param file_path = " + list_,
        "2 file path " + list_ + ", config " + text,
        "2 param xml = " + text,
        "5 section vessa does not exist",
        "5 read plugin list failed, config file path " + list_,
        "4 read plugin list config failed, ignored, file path " + list_ + ", notify type 3",
    })));
}

TEST_F(ListChange, AnAddedFileThatDoesNotParseStaysUnknown) {
    const std::string text = "";
    const std::string added = world_.dir.Write("y/tarnet.xml", text);
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(Round({
        "2 param config_file_path = " + added,
        "3 param file_path = " + added,
        "2 file path " + added + ", config ",
        "2 param xml = ",
        "5 xmlDoc Parse failed, err[true] Error document empty., xml - ",
        "5 read plugin list failed, config file path " + added,
        "4 read plugin list config failed, ignored, file path " + added + ", notify type 1",
    })));

    // Rewritten: changed for the scan, still new for the coordinator.
    const std::string module = Install(world_.dir, "good_v2", "y/late" MODULE_SUFFIX);
    const std::string repaired =
        ListFile().Plugin("late", "./late" MODULE_SUFFIX, Delayed()).Text();
    world_.dir.Write("y/tarnet.xml", repaired);
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(Round(
        Lines{"4 config collection does not contains config file, but notify type is changed, "
              "config file path " +
              added} +
        ListIsRead(added, repaired, {module}) + IsRegistered({"late", module, added, true}, {}))));
}

TEST_F(ListChange, AnUnknownFileThatGoesIsReported) {
    const std::string added = world_.dir.Write("y/tarnet.xml", "");
    world_.Scan();
    world_.dir.Remove("y/tarnet.xml");
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(
        Round({"4 config collection does not contains config file, but notify type is delete, "
               "config file path " +
               added})));
}

TEST_F(ListChange, ADeletedFileUnregisters) {
    world_.dir.Remove("tarnet.xml");
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(Round(IsUnregistered(codec_, ModuleIsUnloaded(module_)))));
}

TEST_F(ListChange, TheDeletionOfTheLastFileIsReportedWhenThereIsOneAgain) {
    world_.dir.Remove("z");
    world_.Scan();
    world_.dir.Remove("tarnet.xml");
    world_.Scan();
    EXPECT_TRUE(world_.log.Is({}));
    EXPECT_EQ(world_.Destroy(world_.Create("codec")), 0);

    // The added file is read first; what goes still goes first.
    const std::string module = Install(world_.dir, "good_v2", "y/late" MODULE_SUFFIX);
    const std::string text = ListFile().Plugin("late", "./late" MODULE_SUFFIX).Text();
    const Declared late{"late", module, world_.dir.Write("y/tarnet.xml", text)};
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(Round(ListIsRead(late.list, text, {module}) +
                                    IsUnregistered(codec_, ModuleIsUnloaded(module_)) +
                                    IsRegistered(late, ModuleIsLoaded(module)))));
}

TEST_F(ListChange, ChangesOfOneScanAreAppliedTogether) {
    const std::string module = Install(world_.dir, "good_v2", "a/new" MODULE_SUFFIX);
    const std::string added_text =
        ListFile().Plugin("new", "./new" MODULE_SUFFIX, Delayed()).Text();
    const std::string added = world_.dir.Write("a/tarnet.xml", added_text);
    const std::string changed_text =
        ListFile().Plugin("late", "../a/new" MODULE_SUFFIX, Delayed()).Text();
    const std::string changed = world_.dir.Write("z/tarnet.xml", changed_text);
    world_.dir.Remove("tarnet.xml");
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(Round(
        ListIsRead(added, added_text, {module}) + ListIsRead(changed, changed_text, {module}) +
        IsUnregistered(codec_, ModuleIsUnloaded(module_)) +
        IsRegistered({"late", module, changed, true}, {}) +
        IsRegistered({"new", module, added, true},
                     {"4 the same plugin file path, different plugin filenames, fkey new, "
                      "registered fkey late, plugin file path " +
                      module}))));
}

TEST_F(ListChange, AFailedScanComparesNothing) {
    world_.dir.Remove("tarnet.xml");
    world_.runtime.FailCall(vessa_test::Tova::OpenDir, 2);
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(
        {"5 tova open dir failed " + Code(kErrorIo) + ", folder path " + world_.Root() + "/z",
         "5 find config file recursive failed"}));
    world_.Scan();
    EXPECT_TRUE(world_.log.Is(Round(IsUnregistered(codec_, ModuleIsUnloaded(module_)))));
}

}  // namespace
