// Folder.h: folders below the build for what a benchmark reads.
#ifndef VESSA_BENCH_FOLDER_H
#define VESSA_BENCH_FOLDER_H

#include <functional>
#include <string>

namespace bench {

// All of them lie in here.
std::string WorkFolder();

void WriteFile(const std::string& path, const std::string& text);

// Removed with everything in it at the end.
class TempFolder {
  public:
    TempFolder() : TempFolder(WorkFolder()) {}
    explicit TempFolder(const std::string& parent);
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& Path() const { return path_; }
    // Both make the folders on the way and return the whole path.
    std::string Copy(const std::string& file, const std::string& relative) const;
    std::string Write(const std::string& relative, const std::string& text) const;

  private:
    std::string path_;
};

// A folder that stays for other programs and later runs: filled once, under a name that tells
// what is in it.
std::string KeptFolder(const std::string& name,
                       const std::function<void(const std::string& folder)>& fill);

}  // namespace bench

#endif
