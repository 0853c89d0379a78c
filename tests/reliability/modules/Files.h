// Files.h: module files that are none, or whose headers are wrong; and the worlds of this family.
#ifndef VESSA_TESTS_RELIABILITY_MODULES_FILES_H
#define VESSA_TESTS_RELIABILITY_MODULES_FILES_H

#include <cstdint>
#include <string>

#include "capi/CapiWorld.h"

namespace hostile {

// Puts a file of the kind at the path of the world. Throws if there is no such kind.
void MakeFile(vessa_test::TempDir& world, const std::string& kind, const std::string& path);

// The whole file of a good module, and where the last of what the system maps of it ends.
std::string GoodModule();
std::uint64_t EndOfSegments(const std::string& module);

// A world with "good" declared, and "m" with a list file that the host puts in its place. Its
// module is to be put at kModulePath.
class HostileWorld : public vessa_test::CapiWorld {
  public:
    explicit HostileWorld(bool delay_load);

    vessa_test::ChildOptions Host(int lives, const std::vector<std::string>& keys = {});
};
constexpr char kModulePath[] = "tarnet/m/m.so";

}  // namespace hostile

#endif
