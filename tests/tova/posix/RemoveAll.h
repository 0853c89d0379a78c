#ifndef TESTS_TOVA_POSIX_REMOVEALL_H
#define TESTS_TOVA_POSIX_REMOVEALL_H

#include <filesystem>

namespace tova_test {

// Removes a folder with everything in it, as far as it can be removed.
inline void RemoveAll(const std::filesystem::path& folder) {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

}  // namespace tova_test

#endif
