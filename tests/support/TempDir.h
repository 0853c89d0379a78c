// TempDir.h: a folder of the test's own, empty at first and removed at the end.
#ifndef VESSA_TESTS_SUPPORT_TEMPDIR_H
#define VESSA_TESTS_SUPPORT_TEMPDIR_H

#include <string>
#include <string_view>

namespace vessa_test {

// Every relative path is taken below the folder. All paths are UTF-8 with "/" between their
// parts, on every system. The folders that lead to a written name are made. What cannot be done
// throws std::system_error or std::filesystem::filesystem_error.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    // Absolute, without links in it and without "/" at the end.
    const std::string& Path() const { return path_; }
    std::string Path(std::string_view relative) const;

    // Each gives the absolute path of what it made.
    // Write writes over the file in place; WriteByRename puts a new file over the name at once.
    std::string Write(std::string_view relative, std::string_view text);
    std::string WriteByRename(std::string_view relative, std::string_view text);
    std::string MakeFolder(std::string_view relative);
    // target as it is to stand in the link: absolute, or relative to the link's folder. On
    // Windows a link is to a file or to a folder, as the target is then. See CanMakeLinks.
    std::string MakeLink(std::string_view target, std::string_view relative);
    // Puts a copy of an absolute path under the name at once, over what was there.
    std::string CopyFile(const std::string& from, std::string_view relative);

    std::string Read(std::string_view relative) const;
    bool Exists(std::string_view relative) const;
    // A folder goes with everything in it.
    void Remove(std::string_view relative);
    void Rename(std::string_view from, std::string_view to);

  private:
    std::string Prepare(std::string_view relative) const;

    std::string path_;
};

// Whether MakeLink works for this user on this system. A test about links cannot do without:
// if (!CanMakeLinks()) GTEST_SKIP() << "no symbolic links here";
bool CanMakeLinks();

}  // namespace vessa_test

#endif
