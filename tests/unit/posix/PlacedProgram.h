// PlacedProgram.h: this test program under another path.
#ifndef VESSA_TESTS_UNIT_POSIX_PLACEDPROGRAM_H
#define VESSA_TESTS_UNIT_POSIX_PLACEDPROGRAM_H

#include <string>

#include "support/Child.h"
#include "support/TempDir.h"

namespace vessa_test {

// What a program needs in its own folder: nothing, it knows the place of its libraries.
inline void PlaceLibraries(TempDir&, const std::string&) {}

inline std::string PlaceProgram(TempDir& world, const std::string& relative) {
    return world.MakeLink(OwnProgram(), relative);
}

}  // namespace vessa_test

#endif
