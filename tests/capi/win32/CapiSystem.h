// CapiSystem.h: how an application is delivered on this system. Each system has a folder with a
// header of this name.
#ifndef VESSA_TESTS_CAPI_CAPISYSTEM_H
#define VESSA_TESTS_CAPI_CAPISYSTEM_H

#include <filesystem>
#include <string>

#include "support/Child.h"
#include "support/TempDir.h"

namespace vessa_test {

constexpr char kVessaName[] = "vessa.dll";
constexpr char kTovaName[] = "tova.dll";
constexpr char kSkribName[] = "skrib.dll";

// A test module that the system's loader refuses.
constexpr char kUnloadableModule[] = "needs_missing_library";

// Puts a built library into the world under its name.
inline void DeliverLibrary(TempDir& world, const std::string& file, const std::string& name) {
    world.CopyFile(file, name);
}

// Puts a built program into the world: it finds its libraries in its own folder alone.
inline void DeliverProgram(TempDir& world, const std::string& file, ChildOptions& options) {
    const std::string name = std::filesystem::u8path(file).filename().u8string();
    options.program = world.Exists(name) ? world.Path(name) : world.CopyFile(file, name);
}

}  // namespace vessa_test

#endif
