#include "common/Folder.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace bench {

std::string WorkFolder() {
    fs::create_directories(BENCH_WORK_FOLDER);
    return BENCH_WORK_FOLDER;
}

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    file << text;
    file.close();
    if (!file) throw std::runtime_error("cannot write " + path);
}

TempFolder::TempFolder(const std::string& parent) : path_(parent + "/vessa-bench-XXXXXX") {
    if (mkdtemp(&path_[0]) == nullptr) throw std::runtime_error("no folder in " + parent);
}

TempFolder::~TempFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

std::string TempFolder::Copy(const std::string& file, const std::string& relative) const {
    const std::string path = path_ + "/" + relative;
    fs::create_directories(fs::path(path).parent_path());
    fs::copy_file(file, path, fs::copy_options::overwrite_existing);
    return path;
}

std::string TempFolder::Write(const std::string& relative, const std::string& text) const {
    const std::string path = path_ + "/" + relative;
    fs::create_directories(fs::path(path).parent_path());
    WriteFile(path, text);
    return path;
}

std::string KeptFolder(const std::string& name,
                       const std::function<void(const std::string& folder)>& fill) {
    const std::string kept = WorkFolder() + "/" + name;
    if (fs::exists(kept)) return kept;
    // Filled under another name first: what is there under its own is whole.
    const std::string unfinished = kept + ".new";
    fs::remove_all(unfinished);
    fs::create_directories(unfinished);
    fill(unfinished);
    fs::rename(unfinished, kept);
    return kept;
}

}  // namespace bench
