#include "support/TempDirSystem.h"

#include <stdlib.h>

#include <cerrno>
#include <system_error>

namespace vessa_test {

namespace fs = std::filesystem;

std::string MakeUniqueFolder() {
    std::string path = (fs::canonical(fs::temp_directory_path()) / "vessa-test-XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr)
        throw std::system_error(errno, std::generic_category(), path);
    return path;
}

void MakeSymbolicLink(const fs::path& target, const fs::path& link) {
    fs::create_symlink(target, link);
}

}  // namespace vessa_test
