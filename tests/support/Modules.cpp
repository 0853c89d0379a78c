#include "support/Modules.h"

#include <filesystem>
#include <stdexcept>

namespace vessa_test {

std::string ModulePath(const std::string& module) {
    std::string path = std::string(VESSA_TEST_MODULES_DIR) + "/" + module + ".so";
    if (!std::filesystem::exists(path)) throw std::runtime_error("no test module " + path);
    return path;
}

std::string Install(TempDir& world, const std::string& module, std::string_view relative) {
    return world.CopyFile(ModulePath(module), relative);
}

}  // namespace vessa_test
