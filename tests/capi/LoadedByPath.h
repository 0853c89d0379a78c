// LoadedByPath.h: a world with one plug-in "a", for the application that loads the library by path.
#ifndef VESSA_TESTS_CAPI_LOADEDBYPATH_H
#define VESSA_TESTS_CAPI_LOADEDBYPATH_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "capi/CapiWorld.h"

namespace vessa_test {

class LoadedByPath : public testing::Test {
  protected:
    LoadedByPath() { world.Add("a", "good_v2"); }

    void ExpectSuccess(const std::vector<std::string>& arguments) {
        const ChildResult result = world.Run(CAPI_LOADER, arguments);
        EXPECT_TRUE(result.Exited(0)) << result;
    }

    CapiWorld world;
};

}  // namespace vessa_test

#endif
