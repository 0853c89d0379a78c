// ScannedFiles.h: what one scan of a folder finds.
#ifndef VESSA_TESTS_UNIT_SCANNEDFILES_H
#define VESSA_TESTS_UNIT_SCANNEDFILES_H

#include <gtest/gtest.h>

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "vessa2/ConfigMonitor.h"

namespace vessa_test {

using Paths = std::vector<std::string>;
using Files = std::list<ConfigMonitor::FileInfo>;

inline Paths Found(const std::string& folder, const std::string& filename = "tarnet.xml") {
    ConfigMonitor monitor;
    Files files;
    EXPECT_TRUE(monitor.FindConfigFileInFolder(folder, filename, files)) << folder;
    Paths paths;
    for (const auto& file : files) paths.push_back(file.path);
    return paths;
}

inline uint64_t StampOf(const std::string& folder) {
    ConfigMonitor monitor;
    Files files;
    EXPECT_TRUE(monitor.FindConfigFileInFolder(folder, "tarnet.xml", files));
    EXPECT_EQ(files.size(), 1u);
    return files.empty() ? 0 : files.front().stamp;
}

}  // namespace vessa_test

#endif
