#include <gtest/gtest.h>

#include <string>

#include "PlacedProgram.h"
#include "TestPlatform.h"
#include "support/Child.h"
#include "support/TempDir.h"
#include "unit/FolderSeenBy.h"

namespace vessa_test {
namespace {

TEST(ModuleDirectory, IsTheFolderOfTheFileThatHoldsTheCode) {
    if (IsChild()) return PrintFolder();
    const std::string program = OwnProgram();
    EXPECT_EQ(FolderSeenBy(program, "/"), program.substr(0, program.rfind('/')));
}

TEST(ModuleDirectory, DoesNotResolveLinks) {
    if (IsChild()) return PrintFolder();
    if (!CanMakeLinks()) GTEST_SKIP() << "no symbolic links here";
    TempDir world;
    PlaceLibraries(world, "here");
    const std::string link = world.MakeLink(OwnProgram(), "here/program" PROGRAM_SUFFIX);
    EXPECT_EQ(FolderSeenBy(link, world.Path()), world.Path("here"));
}

TEST(ModuleDirectory, IsMadeAbsoluteWithTheWorkingFolderAtTheStart) {
    if (IsChild()) return PrintFolder();
    TempDir world;
    PlaceProgram(world, "here/program" PROGRAM_SUFFIX);
    EXPECT_EQ(FolderSeenBy("./program" PROGRAM_SUFFIX, world.Path("here")), world.Path("here"));
    EXPECT_EQ(FolderSeenBy("here/program" PROGRAM_SUFFIX, world.Path()), world.Path("here"));
}

TEST(ModuleDirectory, HasTheOnePathForm) {
    if (IsChild()) return PrintFolder();
    TempDir world;
    PlaceProgram(world, "here/program" PROGRAM_SUFFIX);
    EXPECT_EQ(FolderSeenBy(world.Path() + "//here/.//program" PROGRAM_SUFFIX, world.Path()),
              world.Path("here"));
}

}  // namespace
}  // namespace vessa_test
