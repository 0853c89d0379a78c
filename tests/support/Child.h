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
    std::string program;  // a path, with its suffix; not looked up anywhere
    // In UTF-8. On Windows a program's main has them in the system's code page.
    std::vector<std::string> arguments;
    // Added to this process's environment; a variable without a value is removed from it.
    std::map<std::string, std::optional<std::string>> environment;
    std::string folder;  // the working folder; empty: this process's
    // After this time the child and what it started is killed. On Windows what a child leaves
    // behind is always killed.
    std::chrono::milliseconds watchdog{std::chrono::seconds(60)};
};

struct ChildResult {
    bool hung = false;  // killed by the watchdog
    // -1 unless it exited by itself. On Windows a crash is an exit too, with the number of the
    // exception (0xC0000005, as an int), and abort() exits with 3.
    int exit_status = -1;
    int signal = 0;  // that ended it; SIGKILL if it hung. Always 0 on Windows
    std::string out;
    std::string err;

    bool Exited(int status) const { return !hung && exit_status == status; }
    // Ended by a signal, or by an exception of the system that nobody handled.
    bool Crashed() const;
    // "exit status 3", "signal 11 (Segmentation fault)", "exception C0000005" or "hung".
    std::string End() const;
    // The end and both outputs: EXPECT_TRUE(result.Exited(0)) << result;
    std::string Describe() const;
};
std::ostream& operator<<(std::ostream& out, const ChildResult& result);

// Throws std::system_error if the program cannot be started. Standard input is empty. Lines
// of the outputs end with "\n" on every system.
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
