// OpenedFile.h: files that are opened as regular ones, or refused.
#ifndef VESSA_TESTS_UNIT_OPENEDFILE_H
#define VESSA_TESTS_UNIT_OPENEDFILE_H

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>

#include "TestPlatform.h"
#include "process/Process.h"
#include "tova.h"

namespace vessa_test {

struct CloseFile {
    void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

// With this error; 0: with any.
inline void ExpectRefused(const std::string& path, int error) {
    SetLastSystemError(0);
    const File file(process::OpenRegularFile(path.c_str()));
    EXPECT_EQ(file, nullptr) << path;
    if (error != 0) {
        EXPECT_EQ(TOVA_GetSystemLastError(), error) << path;
    }
    EXPECT_NE(TOVA_GetSystemLastError(), 0) << path;
}

}  // namespace vessa_test

#endif
