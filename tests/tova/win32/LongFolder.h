#ifndef TESTS_TOVA_WIN32_LONGFOLDER_H
#define TESTS_TOVA_WIN32_LONGFOLDER_H

#include <string>

#include "../Support.h"
#include "System.h"

namespace tova_test {

// A folder below the test's own, so deep that the paths of its files are far longer than the 260
// units of the system's older calls.
class LongFolder {
  public:
    explicit LongFolder(const TempFolder& top) : path_(top.Path()) {
        for (int i = 0; i < 4; ++i) {
            path_ += "\\" + std::string(99, static_cast<char>('a' + i));
            if (!CreateDirectoryW(Verbatim(path_).c_str(), nullptr))
                throw std::runtime_error("no long folder");
        }
    }
    const std::string& Path() const { return path_; }
    std::string Path(const std::string& name) const { return path_ + "\\" + name; }
    std::string CopyOf(const std::string& file, const std::string& name) const {
        Open(Verbatim(Path(name)), GENERIC_WRITE, 0, CREATE_NEW).Write(ReadBytes(file));
        return Path(name);
    }

  private:
    std::string path_;
};

}  // namespace tova_test

#endif
