// The library loaded by path, in ways that only this system has.
#include "capi/LoadedByPath.h"

namespace vessa_test {
namespace {

TEST_F(LoadedByPath, IsLoadedAgainTwentyTimesWithItsNamesVisibleToAll) {
    ExpectSuccess({"again_global"});
}

TEST_F(LoadedByPath, FindsTheRootBesideALinkToItself) {
    CapiWorld real;
    TempDir links;
    links.MakeLink(real.dir.Path(kVessaName), kVessaName);
    links.MakeLink(world.dir.Path("tarnet"), "tarnet");
    ExpectSuccess({"named", links.Path(kVessaName)});
}

TEST_F(LoadedByPath, IsFoundUnderAnyFileName) {
    world.dir.MakeLink(world.dir.Path(kVessaName), "renamed");
    ExpectSuccess({"named", world.dir.Path("renamed")});
}

}  // namespace
}  // namespace vessa_test
