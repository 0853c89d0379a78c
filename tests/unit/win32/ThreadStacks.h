// ThreadStacks.h: the size of a thread's stack.
#ifndef VESSA_TESTS_UNIT_WIN32_THREADSTACKS_H
#define VESSA_TESTS_UNIT_WIN32_THREADSTACKS_H

#include <gtest/gtest.h>
#include <process.h>
#include <windows.h>

#include <cstddef>
#include <cstdint>

namespace vessa_test {

// The calling thread's, with what is only reserved of it.
inline std::size_t OwnStackBytes() {
    MEMORY_BASIC_INFORMATION first{};
    VirtualQuery(&first, &first, sizeof first);
    // Its parts differ in what may be done with them.
    std::size_t stack_bytes = 0;
    MEMORY_BASIC_INFORMATION part{};
    while (VirtualQuery(static_cast<const char*>(first.AllocationBase) + stack_bytes, &part,
                        sizeof part) != 0 &&
           part.AllocationBase == first.AllocationBase)
        stack_bytes += part.RegionSize;
    return stack_bytes;
}

// Runs on a thread whose stack holds no recursion over a hostile text.
template <class Function>
void OnSmallStack(Function function) {
    constexpr unsigned kStackBytes = 256 * 1024;
    const auto run = [](void* argument) -> unsigned {
        (*static_cast<Function*>(argument))();
        return 0;
    };
    const auto thread = reinterpret_cast<HANDLE>(_beginthreadex(
        nullptr, kStackBytes, run, &function, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr));
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
    CloseHandle(thread);
}

}  // namespace vessa_test

#endif
