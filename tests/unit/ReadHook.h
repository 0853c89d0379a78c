// ReadHook.h: what happens to a file while it is read. Included by one source file of a program.
#ifndef VESSA_TESTS_UNIT_READHOOK_H
#define VESSA_TESTS_UNIT_READHOOK_H

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <functional>
#include <utility>

#include "TestPlatform.h"

namespace vessa_test {

// Runs a function between the look at a file's size and the reading of its bytes.
inline std::function<void()> before_read;

class ReadHook {
  public:
    explicit ReadHook(std::function<void()> function) { before_read = std::move(function); }
    // Whoever wants it to happen wants to know that it did.
    ~ReadHook() {
        EXPECT_FALSE(before_read) << "nothing was read";
        before_read = nullptr;
    }
    ReadHook(const ReadHook&) = delete;
    ReadHook& operator=(const ReadHook&) = delete;
};

}  // namespace vessa_test

// Stands in for the C library's function in this whole program.
STAND_IN_C(size_t, fread)(void* buffer, size_t size, size_t count, FILE* file) {
    using vessa_test::before_read;
    if (before_read) {
        const std::function<void()> function = std::move(before_read);
        before_read = nullptr;
        function();
    }
    static const auto real =
        vessa_test::FunctionBehind<size_t(void*, size_t, size_t, FILE*)>("fread");
    return real(buffer, size, count, file);
}

#endif
