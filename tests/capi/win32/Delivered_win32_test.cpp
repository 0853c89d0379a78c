// Applications as they are delivered, in places and with ends that only this system has.
#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>
#include <string>

// The system's headers rename functions of others too.
#undef CopyFile

#include "capi/CapiWorld.h"
#include "capi/LoadedByPath.h"
#include "tova/win32/LongFolder.h"

namespace vessa_test {
namespace {

// Blanks, letters of the code page, and letters that no code page has together.
constexpr char kWestern[] = "plug in h\xC3\xB6st";
constexpr char kMixed[] = "plug in \xE6\x97\xA5\xE6\x9C\xAC \xD0\x96\xC3\xA4 \xF0\x9F\x98\x80";

std::string WithBackSlashes(std::string path) {
    for (char& c : path) {
        if (c == '/') c = '\\';
    }
    return path;
}

// The libraries and the plug-in "a", in a folder of the world.
void Deliver(TempDir& world, const std::string& folder, const std::string& fkey = "a") {
    for (const auto& [file, name] :
         {std::pair{VessaFile(), kVessaName}, {TovaFile(), kTovaName}, {SkribFile(), kSkribName}})
        world.CopyFile(file, folder + "/" + name);
    const std::string plugin = folder + "/tarnet/" + fkey + "/";
    Install(world, "good_v2", plugin + fkey + MODULE_SUFFIX);
    world.Write(plugin + "tarnet.xml", ListFile().Plugin(fkey, "./" + fkey + MODULE_SUFFIX).Text());
}

class DeliveredIn : public testing::TestWithParam<const char*> {
  protected:
    ChildResult RunThere(const char* program, std::vector<std::string> arguments) {
        const std::string folder = GetParam();
        Deliver(world_, folder);
        ChildOptions options;
        options.program = world_.CopyFile(program, folder + "/the host" PROGRAM_SUFFIX);
        options.arguments = std::move(arguments);
        options.folder = world_.Path();
        return RunChild(options);
    }

    TempDir world_;
};

// The working folder is another one.
TEST_P(DeliveredIn, AnApplicationFindsItsRoot) {
    const ChildResult result = RunThere(CAPI_PROCESS_END, {"used"});
    EXPECT_TRUE(result.Exited(0)) << result;
}

TEST_P(DeliveredIn, ALibraryThatIsLoadedByPathFindsItsRoot) {
    const std::string library = std::string(GetParam()) + "/" + kVessaName;
    const ChildResult result = RunThere(CAPI_LOADER, {"named", library});
    EXPECT_TRUE(result.Exited(0)) << result;
}

INSTANTIATE_TEST_SUITE_P(Folders, DeliveredIn, testing::Values("plain", kWestern, kMixed),
                         [](const auto& folder) {
                             return std::string(folder.param == kWestern
                                                    ? "WithLettersOfTheCodePage"
                                                : folder.param == kMixed ? "WithAnyLetters"
                                                                         : "Plain");
                         });

TEST_F(LoadedByPath, IsFoundUnderAnyFileName) {
    for (const char* name : {"renamed.dll", "\xE6\x97\xA5 other.dll", "without"}) {
        world.dir.CopyFile(VessaFile(), name);
        const ChildResult result = world.Run(
            CAPI_LOADER, {"named", std::string("./") + name + (name[0] == 'w' ? "." : "")});
        EXPECT_TRUE(result.Exited(0)) << name << ": " << result;
    }
}

TEST_F(LoadedByPath, FindsTheRootBesideALinkToItself) {
    if (!CanMakeLinks()) GTEST_SKIP() << "no symbolic links here";
    CapiWorld real;
    TempDir links;
    links.MakeLink(real.dir.Path(kVessaName), kVessaName);
    links.MakeLink(world.dir.Path("tarnet"), "tarnet");
    ExpectSuccess({"named", links.Path(kVessaName)});
}

TEST_F(LoadedByPath, MayHaveALongPath) {
    const tova_test::TempFolder folder;
    const tova_test::LongFolder deep(folder);
    const std::string library = deep.CopyOf(VessaFile(), kVessaName);
    const std::wstring plugin = tova_test::Verbatim(deep.Path("tarnet"));
    ASSERT_TRUE(CreateDirectoryW(plugin.c_str(), nullptr));
    deep.CopyOf(world.dir.Path("tarnet/a/a.dll"), "tarnet\\a.dll");
    deep.CopyOf(world.dir.Path("tarnet/a/tarnet.xml"), "tarnet\\tarnet.xml");
    world.dir.Remove("tarnet");
    ExpectSuccess({"named", "\\\\?\\" + WithBackSlashes(library)});
}

// Everything as it is delivered, under a path that the system's older calls cannot take.
TEST_F(LoadedByPath, MayHaveALongPathTogetherWithItsApplication) {
    const tova_test::TempFolder folder;
    const tova_test::LongFolder deep(folder);
    for (const auto& [file, name] :
         {std::pair{VessaFile(), kVessaName}, {TovaFile(), kTovaName}, {SkribFile(), kSkribName}})
        deep.CopyOf(file, name);
    ASSERT_TRUE(CreateDirectoryW(tova_test::Verbatim(deep.Path("tarnet")).c_str(), nullptr));
    deep.CopyOf(world.dir.Path("tarnet/a/a.dll"), "tarnet\\a.dll");
    deep.CopyOf(world.dir.Path("tarnet/a/tarnet.xml"), "tarnet\\tarnet.xml");
    ChildOptions options;
    options.program = "\\\\?\\" + WithBackSlashes(deep.CopyOf(CAPI_PROCESS_END, "host.exe"));
    options.arguments = {"used"};
    ChildResult result;
    try {
        result = RunChild(options);
    } catch (const std::system_error& error) {
        GTEST_SKIP() << "the system starts no program there: " << error.what();
    }
    constexpr int kDllNotFound = static_cast<int>(0xC0000135);
    if (result.Exited(kDllNotFound))
        GTEST_SKIP() << "the system finds no library beside a program there";
    EXPECT_TRUE(result.Exited(0)) << result;
}

class WindowsHost : public LoadedByPath {
  protected:
    void ExpectSuccessOf(const std::vector<std::string>& arguments) {
        const ChildResult result = world.Run(CAPI_WINDOWS_HOST, arguments);
        EXPECT_TRUE(result.Exited(0)) << result;
    }
};

TEST_F(WindowsHost, TheLibraryGoesOnScanningAfterItsUnload) {
    Install(world.dir, "good_v1", "tarnet/b/b.dll");
    world.dir.Write("tarnet/b/later.xml", ListFile().Plugin("b", "./b.dll").Text());
    ExpectSuccessOf({"scan_after_unload"});
}

TEST_F(WindowsHost, EachOfTwoLibrariesOfTheSameNameHasItsOwnRoot) {
    Deliver(world.dir, "other", "b");
    ExpectSuccessOf({"two_copies", world.dir.Path("other/vessa.dll")});
}

TEST_F(WindowsHost, TheLibraryComesAndGoesOnShortLivedThreads) {
    ExpectSuccessOf({"on_threads"});
}

TEST_F(WindowsHost, TheEndOfTheProcessWaitsForNobody) {
    for (const char* way : {"end_by_exit", "end_by_exit_process"}) {
        const ChildResult result = world.Run(CAPI_WINDOWS_HOST, {way});
        EXPECT_TRUE(result.Exited(7)) << way << ": " << result;
        EXPECT_EQ(result.err, "") << way;
    }
}

TEST(ProcessEndByTermination, KeepsItsStatus) {
    CapiWorld world;
    world.Add("a", "good_v2");
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"terminate"},
          {"terminate_while_held", "Init"},
          {"terminate_while_held", "CreateInstance_V2"}}) {
        const ChildResult result = world.Run(CAPI_PROCESS_END, arguments);
        EXPECT_TRUE(result.Exited(7)) << arguments.back() << ": " << result;
    }
}

// Nothing of the libraries' is bound to the application's symbols.
TEST(ApplicationsParser, OfTheSameNamesIsNotTheLibrarys) {
    CapiWorld world;
    world.Add("a", "good_v2");
    const ChildResult result = world.Run(CAPI_FOREIGN_TINYXML, {});
    EXPECT_TRUE(result.Exited(0)) << result;
}

}  // namespace
}  // namespace vessa_test
