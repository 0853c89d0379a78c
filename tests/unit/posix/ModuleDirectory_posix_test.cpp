#include <gtest/gtest.h>

#include <string>

#include "PlacedProgram.h"
#include "TestPlatform.h"
#include "support/Child.h"
#include "support/TempDir.h"
#include "unit/FolderSeenBy.h"

namespace vessa_test {
namespace {

TEST(ModuleDirectory, MayBeLongerThanOldSystemsAllowed) {
    if (IsChild()) return PrintFolder();
    TempDir world;
    const std::string part(200, 'x');
    const std::string program = PlaceProgram(world, part + "/" + part + "/program" PROGRAM_SUFFIX);
    EXPECT_EQ(FolderSeenBy(program, world.Path()), world.Path(part + "/" + part));
}

}  // namespace
}  // namespace vessa_test
