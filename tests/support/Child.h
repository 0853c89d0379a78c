// Child.h: runs another program to its end and tells everything about it.
#ifndef VESSA_TESTS_SUPPORT_CHILD_H
#define VESSA_TESTS_SUPPORT_CHILD_H

#include <chrono>
#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vessa_test {

struct ChildOptions {
    std::string program;  // a path; not looked up anywhere
    std::vector<std::string> arguments;
    // Added to this process's environment; a variable without a value is removed from it.
    std::map<std::string, std::optional<std::string>> environment;
    std::string folder;  // the working folder; empty: this process's
    // After this time the child and what it started is killed.
    std::chrono::milliseconds watchdog{std::chrono::seconds(60)};
};

struct ChildResult {
    bool hung = false;     // killed by the watchdog
    int exit_status = -1;  // -1 unless it exited by itself
    int signal = 0;        // that ended it; SIGKILL if it hung
    std::string out;
    std::string err;

    bool Exited(int status) const { return !hung && exit_status == status; }
    // "exit status 3", "signal 11 (Segmentation fault)" or "hung", and both outputs:
    // EXPECT_TRUE(result.Exited(0)) << result;
    std::string Describe() const;
};
std::ostream& operator<<(std::ostream& out, const ChildResult& result);

// Throws std::system_error if the program cannot be started. Standard input is empty.
ChildResult RunChild(const ChildOptions& options);

// The file of this test program.
std::string OwnProgram();

// For what would end or harm this process: the running test once more, alone, in a child.
//
//     TEST(Exit, IsClean) {
//         if (IsChild()) std::exit(3);
//         const ChildResult result = RunChild(ThisTestAsChild());
//         EXPECT_TRUE(result.Exited(3)) << result;
//     }
ChildOptions ThisTestAsChild();
bool IsChild();

}  // namespace vessa_test

#endif
