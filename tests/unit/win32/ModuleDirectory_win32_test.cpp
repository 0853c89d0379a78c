#include <gtest/gtest.h>

#include <string>
#include <system_error>

#include "PlacedProgram.h"
#include "support/Child.h"
#include "support/TempDir.h"
#include "unit/FolderSeenBy.h"

namespace vessa_test {
namespace {

TEST(ModuleDirectory, HasBlanksAndLettersOutsideTheCodePage) {
    if (IsChild()) return PrintFolder();
    TempDir world;
    const std::string folder = "with a blank/\xC3\xA4\xE6\xBC\xA2\xF0\x9F\x98\x80";
    const std::string program = PlaceProgram(world, folder + "/program.exe");
    EXPECT_EQ(FolderSeenBy(program, world.Path()), world.Path(folder));
}

TEST(ModuleDirectory, OfAProgramStartedWithBackslashesHasTheOnePathForm) {
    if (IsChild()) return PrintFolder();
    TempDir world;
    PlaceProgram(world, "here/program.exe");
    EXPECT_EQ(FolderSeenBy(world.Path() + "\\here\\.\\program.exe", world.Path()),
              world.Path("here"));
}

}  // namespace
}  // namespace vessa_test
