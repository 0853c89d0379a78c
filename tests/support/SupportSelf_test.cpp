#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "TestPlatform.h"
#include "support/ListFile.h"
#include "support/Modules.h"
#include "support/Sync.h"
#include "support/TempDir.h"

namespace vessa_test {
namespace {

TEST(TempDirTest, IsEmptyAtFirstAndGoneAtTheEnd) {
    std::string path;
    {
        TempDir world;
        path = world.Path();
        EXPECT_TRUE(std::filesystem::is_empty(path));
        EXPECT_NE(path, TempDir().Path());
        world.Write("a/b/c.txt", "text");
        std::filesystem::permissions(world.Path("a"), std::filesystem::perms::none);
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(TempDirTest, WritesRenamesAndRemoves) {
    TempDir world;
    EXPECT_EQ(world.Write("a/one", "1"), world.Path() + "/a/one");
    EXPECT_EQ(world.Read("a/one"), "1");
    world.Rename("a/one", "b/two");
    EXPECT_FALSE(world.Exists("a/one"));
    EXPECT_EQ(world.Read("b/two"), "1");
    world.Remove("b");
    EXPECT_FALSE(world.Exists("b/two"));
    EXPECT_THROW(world.Remove("b"), std::system_error);
    EXPECT_THROW(world.Read("b/two"), std::system_error);
}

TEST(TempDirTest, MakesLinks) {
    if (!CanMakeLinks()) GTEST_SKIP() << "no symbolic links for this user on this system";
    TempDir world;
    world.MakeFolder("c/d");
    world.MakeLink("d", "c/link");
    EXPECT_TRUE(std::filesystem::is_symlink(world.Path("c/link")));
    EXPECT_TRUE(std::filesystem::is_directory(world.Path("c/link")));
}

TEST(TempDirTest, TakesNamesInUtf8) {
    TempDir world;
    const std::string path = world.Write("\u00FC/\u4E2D\u6587", "text");
    EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::u8path(path)));
    EXPECT_EQ(world.Read("\u00FC/\u4E2D\u6587"), "text");
}

TEST(TempDirTest, ReplacesAFileByRename) {
    TempDir world;
    world.Write("list", "old");
    std::filesystem::create_hard_link(world.Path("list"), world.Path("same"));
    world.WriteByRename("list", "new");
    EXPECT_EQ(world.Read("list"), "new");
    EXPECT_EQ(world.Read("same"), "old");
    world.CopyFile(world.Path("same"), "list");
    EXPECT_EQ(world.Read("list"), "old");
    EXPECT_FALSE(std::filesystem::equivalent(world.Path("list"), world.Path("same")));
    world.Write("list", "in place");
    world.CopyFile(world.Path("list"), "x/copy");
    EXPECT_EQ(world.Read("x/copy"), "in place");
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(world.Path()))
        files += entry.is_regular_file() ? 1 : 0;
    EXPECT_EQ(files, 2);
}

TEST(ListFileTest, HasItsElementsInOrderAndEscaped) {
    const std::string text = ListFile()
                                 .Plugin("a", "./a.so", {{"delayload", "true"}})
                                 .Raw("<!-- x -->\n")
                                 .Element("other", {{"k", "<&\">"}})
                                 .Text();
    EXPECT_EQ(text,
              "<vessa>\n"
              "  <plugin fkey=\"a\" file=\"./a.so\" delayload=\"true\"/>\n"
              "<!-- x -->\n"
              "  <other k=\"&lt;&amp;&quot;&gt;\"/>\n"
              "</vessa>\n");
}

TEST(ModulesTest, FindsAndInstallsAModule) {
    TempDir world;
    const std::string path = Install(world, "good_v2", "tarnet/x" MODULE_SUFFIX);
    EXPECT_EQ(path, world.Path("tarnet/x" MODULE_SUFFIX));
    EXPECT_EQ(std::filesystem::file_size(path), std::filesystem::file_size(ModulePath("good_v2")));
    EXPECT_THROW(ModulePath("no_such_module"), std::runtime_error);
}

TEST(SyncTest, BarrierLetsAllGoOnTogether) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 50;
    Barrier barrier(kThreads);
    std::atomic<int> arrived{0};
    std::atomic<int> early{0};
    const auto body = [&] {
        for (int round = 1; round <= kRounds; ++round) {
            ++arrived;
            barrier.ArriveAndWait();
            if (arrived < round * kThreads) ++early;
            barrier.ArriveAndWait();
        }
    };
    {
        JoiningThread one(body);
        JoiningThread two(body);
        JoiningThread three(body);
        body();
    }
    EXPECT_EQ(early, 0);
    EXPECT_EQ(arrived, kThreads * kRounds);
}

TEST(SyncTest, GateHoldsUntilItIsOpened) {
    Gate gate;
    std::atomic<bool> opened{false};
    JoiningThread thread([&] {
        gate.Wait();
        EXPECT_TRUE(opened);
    });
    EXPECT_FALSE(gate.IsOpen());
    opened = true;
    gate.Open();
    thread.Join();
    EXPECT_TRUE(thread.HasEnded());
    gate.Wait();
}

TEST(SyncTest, AWaitThatTakesTooLongFailsTheTestEvenIfItIsCaught) {
    const auto wait = [] {
        try {
            ThrowTimedOut("a friend");
        } catch (const WaitTimedOut&) {
        }
    };
    EXPECT_NONFATAL_FAILURE(wait(), "waited too long for a friend");
}

}  // namespace
}  // namespace vessa_test
