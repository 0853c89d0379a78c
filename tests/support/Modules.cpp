#include "support/Modules.h"

#include <filesystem>
#include <stdexcept>

#include "TestPlatform.h"
#include "support/Child.h"

namespace vessa_test {
namespace {

namespace fs = std::filesystem;

// Programs and modules are in folders side by side, wherever these are.
fs::path ModulesFolder() {
    return fs::u8path(OwnProgram()).parent_path().parent_path() / "test_modules";
}

}  // namespace

std::string ModulePath(const std::string& module) {
    const fs::path path = ModulesFolder() / (module + MODULE_SUFFIX);
    if (!fs::exists(path)) throw std::runtime_error("no test module " + path.u8string());
    return path.generic_u8string();
}

std::string Install(TempDir& world, const std::string& module, std::string_view relative) {
    const fs::path target = fs::u8path(relative);
    const fs::path companions = ModulesFolder() / (module + ".beside");
    if (fs::exists(companions)) {
        for (const auto& entry : fs::directory_iterator(companions)) {
            const fs::path name = target.parent_path() / entry.path().filename();
            world.CopyFile(entry.path().u8string(), name.generic_u8string());
        }
    }
    return world.CopyFile(ModulePath(module), relative);
}

}  // namespace vessa_test
