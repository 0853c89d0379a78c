#include "vessa2/PluginConfigList.h"

#include <gtest/gtest.h>

#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "TestPlatform.h"
#include "support/LogCapture.h"
#include "support/Runtime.h"
#include "support/TempDir.h"
#include "unit/ConfigItems.h"
#include "unit/LoggedCode.h"

namespace {

using vessa_test::AttributesOf;
using vessa_test::CanMakeLinks;
using vessa_test::Code;
using vessa_test::kErrorFileTooLarge;
using vessa_test::LogCapture;
using vessa_test::Runtime;
using vessa_test::TempDir;
using vessa_test::Tova;
using Fkeys = std::vector<std::string>;

Fkeys FkeysOf(const PluginConfigList& list) {
    Fkeys fkeys;
    for (const PluginConfigItem& item : list) fkeys.push_back(item.fkey());
    return fkeys;
}

// The only item of a list with this element.
PluginConfigItem Parsed(const std::string& element) {
    PluginConfigList list;
    EXPECT_TRUE(list.ParseXmlString("<vessa>" + element + "</vessa>")) << element;
    EXPECT_EQ(list.size(), 1u) << element;
    return list.empty() ? PluginConfigItem() : list.front();
}

PluginConfigItem WithDelayLoad(const std::string& value) {
    return Parsed("<plugin fkey='a' file='f' delayload='" + value + "'/>");
}

TEST(PluginConfigList, ReadsEveryFieldOfAnElement) {
    const PluginConfigItem item =
        Parsed("<plugin fkey=\" video.decoder \" file=\" ./decoder/decoder" MODULE_SUFFIX
               "  \" delayload=\"true\" loadfkeys=\"false\" vendor=\" x \"/>");
    EXPECT_EQ(item.fkey(), "video.decoder");
    EXPECT_EQ(item.file_path(), "./decoder/decoder" MODULE_SUFFIX);
    EXPECT_TRUE(item.delay_load());
    EXPECT_FALSE(item.load_fkeys());
    EXPECT_EQ(item.config_file_path(), "");
    const std::map<std::string, std::string> attributes = {
        {"fkey", " video.decoder "},
        {"file", " ./decoder/decoder" MODULE_SUFFIX "  "},
        {"delayload", "true"},
        {"loadfkeys", "false"},
        {"vendor", " x "}};
    EXPECT_EQ(AttributesOf(item), attributes);
}

TEST(PluginConfigList, KeepsTheOrderOfTheDocumentAndEveryDuplicate) {
    PluginConfigList list;
    ASSERT_TRUE(
        list.ParseXmlString("<vessa><plugin fkey='b' file='1'/><plugin fkey='a' file='2'/>"
                            "<plugin fkey='b' file='3'/></vessa>"));
    EXPECT_EQ(FkeysOf(list), (Fkeys{"b", "a", "b"}));
    EXPECT_EQ(list.back().file_path(), "3");
}

TEST(PluginConfigList, ReadsOnlyTheDirectChildrenOfTheFirstSection) {
    PluginConfigList list;
    ASSERT_TRUE(list.ParseXmlString(
        "<?xml version=\"1.0\"?><!-- <plugin fkey='c' file='c'/> --><other><plugin fkey='o' "
        "file='o'/></other><vessa>text<plugin fkey='a' file='a'><plugin fkey='deep' "
        "file='d'/></plugin><group><plugin fkey='g' file='g'/></group><Plugin fkey='P' "
        "file='P'/></vessa><vessa><plugin fkey='second' file='s'/></vessa>"));
    EXPECT_EQ(FkeysOf(list), (Fkeys{"a"}));
}

TEST(PluginConfigList, MatchesNamesExactly) {
    const LogCapture log;
    PluginConfigList list;
    EXPECT_FALSE(list.ParseXmlString("<Vessa><plugin fkey='a' file='f'/></Vessa>"));
    EXPECT_TRUE(list.ParseXmlString("<vessa><plugin Fkey='a' file='f'/></vessa>"));
    EXPECT_TRUE(list.empty());
    EXPECT_FALSE(Parsed("<plugin fkey='a' file='f' DelayLoad='true'/>").delay_load());
}

TEST(PluginConfigList, StripsOnlyBlanksFromFkeyAndFile) {
    EXPECT_EQ(Parsed("<plugin fkey='  a b  ' file='f'/>").fkey(), "a b");
    EXPECT_EQ(Parsed("<plugin fkey='a' file='  x y" MODULE_SUFFIX " '/>").file_path(),
              "x y" MODULE_SUFFIX);
    EXPECT_EQ(Parsed("<plugin fkey='&#9;a&#9;' file='&#10;f'/>").fkey(), "\ta\t");
    EXPECT_EQ(Parsed("<plugin fkey='&#9;a&#9;' file='&#10;f'/>").file_path(), "\nf");
}

TEST(PluginConfigList, TakesAFlagAsTrueByItsFirstFourCharacters) {
    for (const char* const value : {"true", "true1", "trueish", "true "})
        EXPECT_TRUE(WithDelayLoad(value).delay_load()) << value;
    for (const char* const value : {"TRUE", "True", "1", "yes", " true", "tru", ""})
        EXPECT_FALSE(WithDelayLoad(value).delay_load()) << value;
    EXPECT_TRUE(Parsed("<plugin fkey='a' file='f' loadfkeys='trueish'/>").load_fkeys());
    EXPECT_FALSE(Parsed("<plugin fkey='a' file='f' loadfkeys='TRUE'/>").load_fkeys());
    EXPECT_FALSE(Parsed("<plugin fkey='a' file='f'/>").load_fkeys());
    EXPECT_FALSE(Parsed("<plugin fkey='a' file='f'/>").delay_load());
}

TEST(PluginConfigList, CarriesDelayLoadOverToElementsWithoutIt) {
    PluginConfigList list;
    ASSERT_TRUE(list.ParseXmlString(
        "<vessa><plugin fkey='a' file='f' delayload='true' loadfkeys='true'/>"
        "<plugin fkey='b' file='f'/><plugin fkey='c' file='f' delayload='false'/>"
        "<plugin fkey='d' file='f'/></vessa>"));
    std::vector<bool> delay_load;
    for (const PluginConfigItem& item : list) delay_load.push_back(item.delay_load());
    EXPECT_EQ(delay_load, (std::vector<bool>{true, true, false, false}));
    // The other flag is not carried over.
    EXPECT_FALSE(std::next(list.begin())->load_fkeys());
    // Nor does it reach the next document.
    EXPECT_FALSE(Parsed("<plugin fkey='a' file='f'/>").delay_load());
}

TEST(PluginConfigList, CarriesNothingOverFromASkippedElement) {
    const LogCapture log;
    PluginConfigList list;
    ASSERT_TRUE(list.ParseXmlString(
        "<vessa><plugin fkey='' file='f' delayload='true'/>"
        "<plugin fkey='x' file='' delayload='true'/><plugin fkey='a' file='f'/></vessa>"));
    ASSERT_EQ(FkeysOf(list), (Fkeys{"a"}));
    EXPECT_FALSE(list.front().delay_load());
}

TEST(PluginConfigList, SkipsElementsWithoutFkeyOrFile) {
    const std::string xml =
        "<vessa><plugin file='f'/><plugin fkey='   ' file='f'/><plugin fkey=' b '/>"
        "<plugin fkey='c' file='  '/><plugin fkey='a' file='f'/></vessa>";
    LogCapture log;
    PluginConfigList list;
    ASSERT_TRUE(list.ParseXmlString(xml));
    EXPECT_EQ(FkeysOf(list), (Fkeys{"a"}));
    EXPECT_TRUE(log.Is({"2 param xml = " + xml, "4 invalid item, fkey should not be empty",
                        "4 invalid item, fkey should not be empty",
                        "4 invalid item, file should not be empty, fkey b",
                        "4 invalid item, file should not be empty, fkey c"}));
}

TEST(PluginConfigList, AcceptsASectionWithoutPlugins) {
    LogCapture log;
    PluginConfigList list;
    list.push_back({});
    EXPECT_TRUE(list.ParseXmlString("<vessa/>"));
    EXPECT_TRUE(list.empty());
    EXPECT_TRUE(log.Is({"2 param xml = <vessa/>"}));
}

TEST(PluginConfigList, IsEmptyAfterADocumentWithoutTheSection) {
    LogCapture log;
    PluginConfigList list;
    list.push_back({});
    EXPECT_FALSE(list.ParseXmlString("<other/>"));
    EXPECT_TRUE(list.empty());
    EXPECT_TRUE(log.Is({"2 param xml = <other/>", "5 section vessa does not exist"}));
}

TEST(PluginConfigList, IsUnchangedByATextThatIsNotWellFormed) {
    for (const std::string xml :
         {"", "   ", "garbage<vessa/>", "<vessa><plugin fkey='a' file='f'/>",
          "<vessa><plugin fkey='a' fkey='b' file='f'/></vessa>", "<vessa><plugin fkey=</vessa>"}) {
        LogCapture log;
        PluginConfigList list;
        ASSERT_TRUE(list.ParseXmlString("<vessa><plugin fkey='old' file='f'/></vessa>"));
        log.Clear();
        EXPECT_FALSE(list.ParseXmlString(xml)) << xml;
        EXPECT_EQ(FkeysOf(list), (Fkeys{"old"})) << xml;
        EXPECT_TRUE(
            log.Is({"2 param xml = " + xml, "5 xmlDoc Parse failed, err[true] {*}, xml - " + xml}));
        // There is a reason between the flag and the text.
        EXPECT_EQ(log.Count("err[true] , xml"), 0) << xml;
    }
}

TEST(PluginConfigList, IgnoresWhatFollowsTheSectionAndAZeroByte) {
    PluginConfigList list;
    EXPECT_TRUE(list.ParseXmlString("<vessa><plugin fkey='a' file='f'/></vessa>garbage"));
    EXPECT_EQ(FkeysOf(list), (Fkeys{"a"}));
    EXPECT_TRUE(list.ParseXmlString(std::string("<vessa/>\0<", 10)));
    EXPECT_TRUE(list.empty());
}

TEST(PluginConfigList, DecodesEntitiesInEveryValue) {
    const PluginConfigItem item =
        Parsed("<plugin fkey='a&amp;b' file='&lt;f&gt;' note='&quot;&apos;&#65;'/>");
    EXPECT_EQ(item.fkey(), "a&b");
    EXPECT_EQ(item.file_path(), "<f>");
    EXPECT_EQ(item.FindAttribute("note"), "\"'A");
}

TEST(PluginConfigList, LogsATextThatLooksLikeAFormatAsItStands) {
    const std::string xml = "<vessa><plugin file='f' note='{0}%s{1:X}'/></vessa>";
    LogCapture log;
    PluginConfigList list;
    ASSERT_TRUE(list.ParseXmlString(xml));
    EXPECT_TRUE(log.Is({"2 param xml = " + xml, "4 invalid item, fkey should not be empty"}));
}

TEST(PluginConfigList, WritesItsItemsAsText) {
    PluginConfigList list;
    std::ostringstream empty;
    empty << list;
    EXPECT_EQ(empty.str(), "[]");

    ASSERT_TRUE(list.ParseXmlString("<vessa><plugin fkey='a' file='/p/a" MODULE_SUFFIX
                                    "' delayload='true' loadfkeys='true' x='y'/>"
                                    "<plugin fkey='b' file='/p/b" MODULE_SUFFIX
                                    "' delayload='false'/></vessa>"));
    std::ostringstream both;
    both << list;
    const std::string expected =
        "[{fkey:a, file_path:/p/a" MODULE_SUFFIX
        ", delay_load:1}, {fkey:b, file_path:/p/b" MODULE_SUFFIX ", delay_load:0}]";
    EXPECT_EQ(both.str(), expected);
    std::string message = "list ";
    AppendLogText(message, list);
    EXPECT_EQ(message, "list " + expected);
}

TEST(PluginConfigList, ACopyKeepsItsItemsWhateverBecomesOfTheList) {
    PluginConfigList list;
    ASSERT_TRUE(list.ParseXmlString("<vessa><plugin fkey='a' file='f' x='y'/></vessa>"));
    const PluginConfigList copy = list;
    ASSERT_TRUE(list.ParseXmlString("<vessa><plugin fkey='changed' file='f' x='z'/></vessa>"));
    list.push_back(copy.front());
    list.clear();
    ASSERT_EQ(copy.size(), 1u);
    EXPECT_EQ(copy.front().fkey(), "a");
    EXPECT_EQ(copy.front().FindAttribute("x"), "y");
}

TEST(PluginConfigList, ReadsAFile) {
    TempDir dir;
    const std::string xml = "<vessa><plugin fkey='a' file='f'/></vessa>";
    const std::string path = dir.Write("tarnet.xml", xml + std::string("\0<garbage", 9));
    LogCapture log;
    PluginConfigList list;
    EXPECT_TRUE(list.ParseXmlFile(path));
    EXPECT_EQ(FkeysOf(list), (Fkeys{"a"}));
    EXPECT_TRUE(log.Is({"3 param file_path = " + path, "2 file path " + path + ", config " + xml,
                        "2 param xml = " + xml}));
}

TEST(PluginConfigList, RefusesAnEmptyPath) {
    LogCapture log;
    PluginConfigList list;
    EXPECT_FALSE(list.ParseXmlFile(""));
    EXPECT_TRUE(log.Is({"3 param file_path = ", "5 param file_path should not be empty"}));
}

void ExpectMissing(const std::string& path) {
    LogCapture log;
    PluginConfigList list;
    EXPECT_FALSE(list.ParseXmlFile(path));
    EXPECT_TRUE(log.Is({"3 param file_path = " + path, "5 file does not exist, " + path}));
}

TEST(PluginConfigList, RefusesAFileThatDoesNotExistAndALinkToNowhere) {
    TempDir dir;
    ExpectMissing(dir.Path("tarnet.xml"));
    if (!CanMakeLinks()) GTEST_SKIP() << "the link to nowhere: no symbolic links here";
    ExpectMissing(dir.MakeLink("nowhere", "link/tarnet.xml"));
}

// One byte below the limit and at it.
std::string ListOfSize(size_t size) {
    const std::string head = "<vessa><plugin fkey='a' file='f'/><!--";
    const std::string tail = "--></vessa>";
    return head + std::string(size - head.size() - tail.size(), '.') + tail;
}

TEST(PluginConfigList, ReadsAFileOfOneByteLessThanOneMebibyte) {
    TempDir dir;
    const std::string path = dir.Write("tarnet.xml", ListOfSize(1048575));
    PluginConfigList list;
    EXPECT_TRUE(list.ParseXmlFile(path));
    EXPECT_EQ(FkeysOf(list), (Fkeys{"a"}));
}

TEST(PluginConfigList, RefusesAFileOfOneMebibyte) {
    TempDir dir;
    const std::string path = dir.Write("tarnet.xml", ListOfSize(1048576));
    LogCapture log;
    PluginConfigList list;
    EXPECT_FALSE(list.ParseXmlFile(path));
    EXPECT_TRUE(
        log.Is({"3 param file_path = " + path,
                "5 ReadTextFile failed " + Code(kErrorFileTooLarge) + ", file path " + path}));
}

TEST(PluginConfigList, RefusesAnEmptyFileAsAnEmptyDocument) {
    TempDir dir;
    const std::string path = dir.Write("tarnet.xml", "");
    LogCapture log;
    PluginConfigList list;
    EXPECT_FALSE(list.ParseXmlFile(path));
    EXPECT_TRUE(log.Is(
        {"3 param file_path = " + path, "2 file path " + path + ", config ",
         "2 param xml = ", "5 xmlDoc Parse failed, err[true] Error document empty., xml - "}));
}

TEST(PluginConfigList, AsksTheRuntimeWhetherTheFileExists) {
    TempDir dir;
    const std::string path = dir.Write("tarnet.xml", "<vessa/>");
    Runtime runtime;
    runtime.FailCall(Tova::AccessFile);
    LogCapture log;
    PluginConfigList list;
    EXPECT_FALSE(list.ParseXmlFile(path));
    EXPECT_TRUE(log.Contains("5 file does not exist, " + path));
    EXPECT_TRUE(list.ParseXmlFile(path));
}

}  // namespace
