#include "../ChildSystem.h"

#include <windows.h>

// After the system's own header.
#include <shellapi.h>

#include <atomic>

#include "System.h"
#include "tova/win32/Imports.h"

namespace skrib_test {
namespace {

std::atomic<long> clock_offset_s{0};

BOOL WINAPI QueryMovedCounter(LARGE_INTEGER* count) {
    LARGE_INTEGER frequency;
    QueryPerformanceFrequency(&frequency);
    const BOOL result = QueryPerformanceCounter(count);
    count->QuadPart += frequency.QuadPart * clock_offset_s;
    return result;
}

}  // namespace

std::vector<std::string> Arguments(int, char**) {
    int count = 0;
    wchar_t** const wide = CommandLineToArgvW(GetCommandLineW(), &count);
    std::vector<std::string> arguments;
    for (int i = 1; i < count; ++i) arguments.push_back(Narrow(wide[i]));
    LocalFree(wide);
    return arguments;
}

// The test sees to it.
void LimitLife() {}

void Die() {
    TerminateProcess(GetCurrentProcess(), 0);
    for (;;) Sleep(INFINITE);
}

void MoveClock(long seconds) {
    static const tova_test::StandIn<decltype(QueryPerformanceCounter)> clock(
        "skrib.dll", "QueryPerformanceCounter", &QueryMovedCounter);
    clock_offset_s += seconds;
}

}  // namespace skrib_test
