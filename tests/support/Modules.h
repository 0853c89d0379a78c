// Modules.h: the built test modules (tests/modules) and how one gets into a test's world.
#ifndef VESSA_TESTS_SUPPORT_MODULES_H
#define VESSA_TESTS_SUPPORT_MODULES_H

#include <string>
#include <string_view>

#include "support/TempDir.h"

namespace vessa_test {

// The absolute path of the built module, for example of "good_v2". Throws if there is none.
std::string ModulePath(const std::string& module);

// Puts a copy of the module into the world, over what was there, and gives its absolute path.
// Two copies are two modules to the system's loader. The libraries that a module has to find
// beside itself come with it.
std::string Install(TempDir& world, const std::string& module, std::string_view relative);

}  // namespace vessa_test

#endif
