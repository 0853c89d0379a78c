// OpenedFile.h: files that are opened as regular ones, or refused.
#ifndef VESSA_TESTS_UNIT_OPENEDFILE_H
#define VESSA_TESTS_UNIT_OPENEDFILE_H

#include <gtest/gtest.h>

#include <string>

#include "TestPlatform.h"
#include "process/Process.h"
#include "tova.h"

namespace vessa_test {

// With this error; 0: with any.
inline void ExpectRefused(const std::string& path, int error) {
    SetLastSystemError(0);
    process::RegularFile file;
    EXPECT_FALSE(file.Open(path.c_str())) << path;
    if (error != 0) {
        EXPECT_EQ(TOVA_GetSystemLastError(), error) << path;
    }
    EXPECT_NE(TOVA_GetSystemLastError(), 0) << path;
}

}  // namespace vessa_test

#endif
