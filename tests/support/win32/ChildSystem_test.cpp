#include <gtest/gtest.h>
#include <process.h>
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/SupportChild.h"
#include "support/Sync.h"

namespace vessa_test {
namespace {

constexpr const char* kLine = "grandchild ";

// In the child: starts a grandchild that never ends by itself and has the child's outputs.
void StartAGrandchild() {
    const std::string program = SupportChild({}).program;
    const intptr_t handle =
        _spawnl(_P_NOWAIT, program.c_str(), "vessa_support_child", "hang", nullptr);
    if (handle == -1) std::_Exit(9);
    std::printf("%s%lu\n", kLine, GetProcessId(reinterpret_cast<HANDLE>(handle)));
    std::fflush(stdout);
}

// Whether the grandchild that the child told of has ended, or ends soon.
bool GrandchildEnds(const std::string& out) {
    const std::size_t at = out.find(kLine);
    if (at == std::string::npos) return false;
    const DWORD id = static_cast<DWORD>(std::stoul(out.substr(at + std::string(kLine).size())));
    const HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, id);
    if (process == nullptr) return true;
    const DWORD limit_ms = static_cast<DWORD>(std::chrono::milliseconds(kLongWait).count());
    const DWORD result = WaitForSingleObject(process, limit_ms);
    CloseHandle(process);
    return result == WAIT_OBJECT_0;
}

TEST(ChildTest, TellsTheNumberOfACrash) {
    const ChildResult result = RunChild(SupportChild({"crash"}));
    EXPECT_EQ(static_cast<unsigned>(result.exit_status), 0xC0000005U) << result;
    EXPECT_TRUE(result.Crashed());
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.End(), "exception C0000005");
}

TEST(ChildTest, EndsAChildThatHangsAndWhatItStarted) {
    if (IsChild()) {
        StartAGrandchild();
        Gate().Wait();
    }
    ChildOptions options = ThisTestAsChild();
    options.watchdog = std::chrono::seconds(3);
    const ChildResult result = RunChild(options);
    EXPECT_TRUE(result.hung) << result;
    EXPECT_FALSE(result.Exited(0));
    EXPECT_FALSE(result.Crashed());
    EXPECT_EQ(result.Describe().substr(0, 5), "hung\n");
    EXPECT_TRUE(GrandchildEnds(result.out)) << result;
}

TEST(ChildTest, EndsAGrandchildThatTheChildLeavesBehind) {
    if (IsChild()) {
        StartAGrandchild();
        return;
    }
    const ChildResult result = RunChild(ThisTestAsChild());
    EXPECT_TRUE(result.Exited(0)) << result;
    EXPECT_TRUE(GrandchildEnds(result.out)) << result;
}

}  // namespace
}  // namespace vessa_test
