#include "support/TempDirSystem.h"

#include <windows.h>

#include <random>
#include <system_error>

#include "support/win32/WideText.h"

namespace vessa_test {

namespace fs = std::filesystem;

std::string MakeUniqueFolder() {
    const fs::path folder = fs::canonical(fs::temp_directory_path());
    std::random_device random;
    for (;;) {
        const fs::path path = folder / ("vessa-test-" + std::to_string(GetCurrentProcessId()) +
                                        "-" + std::to_string(random()));
        // False: somebody else has it.
        if (fs::create_directory(path)) return path.generic_u8string();
    }
}

void MakeSymbolicLink(const fs::path& target, const fs::path& link) {
    fs::path native = target;
    native.make_preferred();
    // Whether it leads to a folder is part of the link itself. The other flag is for users
    // without the right to make links, where the system is set so.
    DWORD flags = 2;
    if (fs::is_directory(link.parent_path() / target)) flags |= SYMBOLIC_LINK_FLAG_DIRECTORY;
    const bool made = CreateSymbolicLinkW(link.c_str(), native.c_str(), flags) != 0;
    if (!made) ThrowLastError(link.u8string());
    // There are systems that say yes and make none.
    if (GetFileAttributesW(link.c_str()) == INVALID_FILE_ATTRIBUTES) {
        SetLastError(ERROR_NOT_SUPPORTED);
        ThrowLastError(link.u8string());
    }
}

}  // namespace vessa_test
