#ifndef TESTS_TOVA_WIN32_REMOVEALL_H
#define TESTS_TOVA_WIN32_REMOVEALL_H

#include <windows.h>

#include <filesystem>
#include <string>

namespace tova_test {

inline void RemoveVerbatim(const std::wstring& folder) {
    WIN32_FIND_DATAW found;
    const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring name = found.cFileName;
            if (name == L"." || name == L"..") continue;
            const std::wstring path = folder + L"\\" + name;
            const bool is_folder = (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
            const bool is_link = (found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
            if (!is_folder)
                DeleteFileW(path.c_str());
            else if (is_link)
                RemoveDirectoryW(path.c_str());
            else
                RemoveVerbatim(path);
        } while (FindNextFileW(search, &found));
        FindClose(search);
    }
    RemoveDirectoryW(folder.c_str());
}

// Removes a folder with everything in it, as far as it can be removed: also names that the standard
// library would not name so, and those with long paths.
inline void RemoveAll(const std::filesystem::path& folder) {
    RemoveVerbatim(L"\\\\?\\" + std::filesystem::path(folder).make_preferred().native());
}

}  // namespace tova_test

#endif
