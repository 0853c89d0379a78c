// PlacedProgram.h: this test program under another path.
#ifndef VESSA_TESTS_UNIT_WIN32_PLACEDPROGRAM_H
#define VESSA_TESTS_UNIT_WIN32_PLACEDPROGRAM_H

#include <string>

#include "support/Child.h"
#include "support/TempDir.h"

namespace vessa_test {

// What a program needs in its own folder: the libraries that it is linked with.
inline void PlaceLibraries(TempDir& world, const std::string& folder) {
    const std::string program = OwnProgram();
    const std::string own_folder = program.substr(0, program.rfind('/') + 1);
    for (const std::string library : {"tova.dll", "skrib.dll"})
        world.CopyFile(own_folder + library, folder + "/" + library);
}

inline std::string PlaceProgram(TempDir& world, const std::string& relative) {
    PlaceLibraries(world, relative.substr(0, relative.rfind('/')));
    return world.CopyFile(OwnProgram(), relative);
}

}  // namespace vessa_test

#endif
