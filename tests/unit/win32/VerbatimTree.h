// VerbatimTree.h: folders and files under names that the system reads as others, or not at all,
// unless it is told to take them as they are: long ones, and those that end in a full stop or a
// blank.
#ifndef VESSA_TESTS_UNIT_WIN32_VERBATIMTREE_H
#define VESSA_TESTS_UNIT_WIN32_VERBATIMTREE_H

#include <windows.h>

#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "support/TempDir.h"
#include "support/win32/WideText.h"

namespace vessa_test {

// Removes at its end what it made, which nobody else could.
class VerbatimTree {
  public:
    explicit VerbatimTree(const TempDir& world) : root_(world.Path()) {}
    ~VerbatimTree() {
        for (const std::wstring& file : files_) DeleteFileW(file.c_str());
        for (auto folder = folders_.rbegin(); folder != folders_.rend(); ++folder)
            RemoveDirectoryW(folder->c_str());
    }
    VerbatimTree(const VerbatimTree&) = delete;
    VerbatimTree& operator=(const VerbatimTree&) = delete;

    // The folders on the way are made; gives the path with "/" between its parts.
    std::string Write(const std::string& relative, const std::string& text) {
        for (std::size_t end = relative.find('/'); end != std::string::npos;
             end = relative.find('/', end + 1))
            MakeFolder(Verbatim(relative.substr(0, end)));
        const std::wstring path = Verbatim(relative);
        const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                        FILE_ATTRIBUTE_NORMAL, nullptr);
        if (file == INVALID_HANDLE_VALUE) ThrowLastError(relative);
        files_.insert(path);
        DWORD written = 0;
        const BOOL done =
            WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
        CloseHandle(file);
        if (!done) ThrowLastError(relative);
        return root_ + "/" + relative;
    }

  private:
    std::wstring Verbatim(const std::string& relative) const {
        std::wstring path = L"\\\\?\\" + WideText(root_ + "/" + relative);
        for (wchar_t& c : path) {
            if (c == L'/') c = L'\\';
        }
        return path;
    }
    void MakeFolder(const std::wstring& path) {
        if (CreateDirectoryW(path.c_str(), nullptr))
            folders_.push_back(path);
        else if (GetLastError() != ERROR_ALREADY_EXISTS)
            ThrowLastError("a folder");
    }

    const std::string root_;
    std::vector<std::wstring> folders_;
    std::set<std::wstring> files_;
};

}  // namespace vessa_test

#endif
