// FolderSeenBy.h: what a program takes for the folder of its own file.
#ifndef VESSA_TESTS_UNIT_FOLDERSEENBY_H
#define VESSA_TESTS_UNIT_FOLDERSEENBY_H

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <string>

#include "support/Child.h"
#include "vessa2/ModuleDirectory.h"

namespace vessa_test {

// Puts the working folder back at its end.
class WorkingFolder {
  public:
    explicit WorkingFolder(const std::string& folder) {
        std::filesystem::current_path(std::filesystem::u8path(folder));
    }
    ~WorkingFolder() { std::filesystem::current_path(before_); }
    WorkingFolder(const WorkingFolder&) = delete;
    WorkingFolder& operator=(const WorkingFolder&) = delete;

  private:
    const std::filesystem::path before_ = std::filesystem::current_path();
};

// A child prints what it takes for its folder, started under a name of the test's choice from a
// folder of the test's choice.
inline std::string FolderSeenBy(const std::string& program, const std::string& working_folder) {
    const WorkingFolder folder(working_folder);
    ChildOptions options = ThisTestAsChild();
    options.program = program;
    const ChildResult result = RunChild(options);
    EXPECT_TRUE(result.Exited(0)) << result;
    const std::string mark = "folder=[";
    const std::size_t begin = result.out.find(mark);
    if (begin == std::string::npos) return result.Describe();
    const std::size_t end = result.out.find("]\n", begin);
    return result.out.substr(begin + mark.size(), end - begin - mark.size());
}

// After the working folder has changed: what counts is the one at the start.
inline void PrintFolder() {
    std::filesystem::current_path("/");
    std::printf("folder=[%s]\n", GetModuleDirectory().c_str());
}

}  // namespace vessa_test

#endif
