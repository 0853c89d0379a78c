#include "host/corpus.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <stdexcept>
#include <system_error>

namespace host {
namespace {

namespace fs = std::filesystem;

std::vector<fs::path> FilesIn(const fs::path& folder) {
    std::vector<fs::path> files;
    const auto options = fs::directory_options::skip_permission_denied;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder, options)) {
        if (entry.symlink_status().type() == fs::file_type::regular) files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

bool Readable(const fs::path& file) {
    return std::ifstream(file, std::ios::binary).is_open();
}

std::vector<fs::path> FilesOf(const std::string& argument) {
    std::error_code error;
    const fs::path path = fs::canonical(fs::u8path(argument), error);
    if (error) throw std::runtime_error(fmt::format("{}: {}", argument, error.message()));
    if (fs::is_directory(path)) return FilesIn(path);
    if (!fs::is_regular_file(path)) {
        throw std::runtime_error(fmt::format("{}: neither a file nor a folder", argument));
    }
    if (!Readable(path)) throw std::runtime_error(argument + ": cannot be read");
    return {path};
}

}  // namespace

Corpus GatherFiles(const std::vector<std::string>& arguments, std::uint64_t limit_bytes) {
    Corpus corpus;
    std::set<fs::path> known;
    for (const std::string& argument : arguments) {
        for (fs::path& file : FilesOf(argument)) {
            if (!known.insert(file).second) continue;
            const std::uint64_t size = fs::file_size(file);
            if (limit_bytes != 0 && size > limit_bytes - corpus.bytes) {
                ++corpus.left_out;
                continue;
            }
            if (!Readable(file)) {
                ++corpus.unreadable;
                continue;
            }
            corpus.bytes += size;
            corpus.files.push_back(std::move(file));
        }
    }
    return corpus;
}

}  // namespace host
