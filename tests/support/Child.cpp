#include "support/Child.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ostream>

namespace vessa_test {
namespace {

constexpr const char* kChildVariable = "VESSA_TEST_CHILD";

}  // namespace

std::string ChildResult::Describe() const {
    return End() + "\nstandard output:\n" + out + "\nstandard error:\n" + err;
}

std::ostream& operator<<(std::ostream& out, const ChildResult& result) {
    return out << result.Describe();
}

ChildOptions ThisTestAsChild() {
    const testing::TestInfo* const test = testing::UnitTest::GetInstance()->current_test_info();
    ChildOptions options;
    options.program = OwnProgram();
    options.arguments = {std::string("--gtest_filter=") + test->test_suite_name() + "." +
                         test->name()};
    options.environment[kChildVariable] = "1";
    return options;
}

bool IsChild() {
    return std::getenv(kChildVariable) != nullptr;
}

}  // namespace vessa_test
