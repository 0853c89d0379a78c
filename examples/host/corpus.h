// The files that the host works on.
#ifndef HOST_CORPUS_H
#define HOST_CORPUS_H

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace host {

struct Corpus {
    std::vector<std::filesystem::path> files;
    std::uint64_t bytes = 0;
    std::size_t left_out = 0;    // files that did not fit below the limit
    std::size_t unreadable = 0;  // files in folders that this user may not read
};

// The regular files among the arguments and in the folders among them, at any depth, each
// once; links inside folders are not followed. Files go in by the order of the arguments and,
// within a folder, of their paths, as long as the sum of their sizes stays within limit_bytes
// (0: no limit). Folders inside that this user may not list are passed over. Throws
// std::runtime_error for an argument that cannot be read.
Corpus GatherFiles(const std::vector<std::string>& arguments, std::uint64_t limit_bytes);

}  // namespace host

#endif
