#include "vessa2/ModuleDirectory.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "support/Child.h"
#include "support/TempDir.h"

namespace vessa_test {
namespace {

// A child prints what it takes for its folder, started under a name of the test's choice from a
// folder of the test's choice.
std::string FolderSeenBy(const std::string& program, const std::string& working_folder) {
    ChildOptions options = ThisTestAsChild();
    options.program = program;
    options.folder = working_folder;
    const ChildResult result = RunChild(options);
    EXPECT_TRUE(result.Exited(0)) << result;
    const std::string mark = "folder=[";
    const std::size_t begin = result.out.find(mark);
    if (begin == std::string::npos) return result.Describe();
    const std::size_t end = result.out.find("]\n", begin);
    return result.out.substr(begin + mark.size(), end - begin - mark.size());
}

// After the working folder has changed: what counts is the one at the start.
void PrintFolder() {
    ASSERT_EQ(chdir("/"), 0);
    std::printf("folder=[%s]\n", GetModuleDirectory().c_str());
}

TEST(ModuleDirectory, IsTheFolderOfTheFileThatHoldsTheCode) {
    if (IsChild()) return PrintFolder();
    const std::string program = OwnProgram();
    EXPECT_EQ(FolderSeenBy(program, ""), program.substr(0, program.rfind('/')));
}

TEST(ModuleDirectory, DoesNotResolveLinks) {
    if (IsChild()) return PrintFolder();
    TempDir world;
    const std::string link = world.MakeLink(OwnProgram(), "here/program");
    EXPECT_EQ(FolderSeenBy(link, ""), world.Path("here"));
}

TEST(ModuleDirectory, IsMadeAbsoluteWithTheWorkingFolderAtTheStart) {
    if (IsChild()) return PrintFolder();
    TempDir world;
    world.MakeLink(OwnProgram(), "here/program");
    EXPECT_EQ(FolderSeenBy("./program", world.Path("here")), world.Path("here"));
    EXPECT_EQ(FolderSeenBy("here/program", world.Path()), world.Path("here"));
}

TEST(ModuleDirectory, HasTheOnePathForm) {
    if (IsChild()) return PrintFolder();
    TempDir world;
    world.MakeLink(OwnProgram(), "here/program");
    EXPECT_EQ(FolderSeenBy(world.Path() + "//here/.//program", ""), world.Path("here"));
}

TEST(ModuleDirectory, MayBeLongerThanOldSystemsAllowed) {
    if (IsChild()) return PrintFolder();
    TempDir world;
    const std::string part(200, 'x');
    const std::string link = world.MakeLink(OwnProgram(), part + "/" + part + "/program");
    EXPECT_EQ(FolderSeenBy(link, ""), world.Path(part + "/" + part));
}

}  // namespace
}  // namespace vessa_test
