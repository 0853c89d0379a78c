#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// The folders of one scan in the order in which they are searched. Of each only its name is
// kept, and its memory serves the next scan too: one that finds no more folders than the one
// before allocates nothing.
//
// Thread safety: none; a monitor runs one scan at a time.
// Invariants: a folder's parent stands before it; the first one, the root, has none. A path made
// from root_before_ and names of folders is normalised.
class FolderQueue {
  public:
    static constexpr size_t kNoParent = static_cast<size_t>(-1);

    // Begins again with the root alone, the folder of any path.
    void Begin(const std::string& root);
    // Adds a folder whose name has no backslash in it.
    void Add(size_t parent, const char* name, uint64_t volume, uint64_t file_id);
    // The root is known by its path alone until it is opened.
    void SetIdentity(size_t at, uint64_t volume, uint64_t file_id);

    size_t size() const { return folders_.size(); }
    // The folder's normalised path, and that of a file in it.
    void PathOf(size_t at, std::string& path) const;
    std::string PathOfFile(size_t at, const std::string& folder_path,
                           const std::string& name) const;
    // Whether the folder is the one at this place or one above it on the walked path.
    bool IsOwnAncestor(size_t at, uint64_t volume, uint64_t file_id) const;

    // Gives the memory back.
    void Free();

  private:
    struct Folder {
        size_t parent;
        size_t name_at;
        uint64_t volume;
        uint64_t file_id;
    };

    size_t SizeOfPath(size_t at) const;

    std::string root_;
    std::string root_before_;  // what stands before the name of something in the root
    std::vector<Folder> folders_;
    std::vector<char> names_;  // each with its zero byte
};
