// ReadHook.h: what happens to a file while it is read. Included by one source file of a program.
#ifndef VESSA_TESTS_UNIT_READHOOK_H
#define VESSA_TESTS_UNIT_READHOOK_H

#include <gtest/gtest.h>

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

inline void RunBeforeRead() {
    if (!before_read) return;
    const std::function<void()> function = std::move(before_read);
    before_read = nullptr;
    function();
}

}  // namespace vessa_test

// Stands in for the C library's function in this whole program.
#include "ReadFunction.h"

#endif
