// SupportChild.h: how the tests of Child.h start the child that does as its arguments say.
#ifndef VESSA_TESTS_SUPPORT_SUPPORTCHILD_H
#define VESSA_TESTS_SUPPORT_SUPPORTCHILD_H

#include <string>
#include <utility>
#include <vector>

#include "TestPlatform.h"
#include "support/Child.h"

namespace vessa_test {

inline ChildOptions SupportChild(std::vector<std::string> arguments) {
    const std::string own = OwnProgram();
    ChildOptions options;
    options.program = own.substr(0, own.rfind('/') + 1) + "vessa_support_child" PROGRAM_SUFFIX;
    options.arguments = std::move(arguments);
    return options;
}

}  // namespace vessa_test

#endif
