// CapiSystem.h: how an application is delivered on this system. Each system has a folder with a
// header of this name.
#ifndef VESSA_TESTS_CAPI_CAPISYSTEM_H
#define VESSA_TESTS_CAPI_CAPISYSTEM_H

#include <string>

#include "support/Child.h"
#include "support/TempDir.h"

namespace vessa_test {

constexpr char kVessaName[] = "libvessa.so.2";
constexpr char kTovaName[] = "libtova.so.2";
constexpr char kSkribName[] = "libskrib.so.2";

// A test module that the system's loader refuses.
constexpr char kUnloadableModule[] = "undefined_symbol";

// Puts a built library into the world under its name.
inline void DeliverLibrary(TempDir& world, const std::string& file, const std::string& name) {
    world.MakeLink(file, name);
}

// Makes a built program one that finds its libraries in the world.
inline void DeliverProgram(TempDir& world, const std::string& file, ChildOptions& options) {
    options.program = file;
    options.environment["LD_LIBRARY_PATH"] = world.Path();
}

}  // namespace vessa_test

#endif
