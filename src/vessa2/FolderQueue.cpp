#include "vessa2/FolderQueue.h"

#include <cstring>

#include "common/NormalizePath.h"

void FolderQueue::Begin(const std::string& root) {
    folders_.clear();
    names_.clear();
    root_ = NormalizePath(root);
    // "/", "C:/" and "." are not followed by a "/" of their own.
    root_before_ = NormalizePath(root_ + "/x");
    root_before_.pop_back();
    Add(kNoParent, "", 0, 0);
}

void FolderQueue::Add(size_t parent, const char* name, uint64_t volume, uint64_t file_id) {
    const size_t name_at = names_.size();
    names_.insert(names_.end(), name, name + std::strlen(name) + 1);
    folders_.push_back({parent, name_at, volume, file_id});
}

void FolderQueue::SetIdentity(size_t at, uint64_t volume, uint64_t file_id) {
    folders_[at].volume = volume;
    folders_[at].file_id = file_id;
}

// Of a folder below the root.
size_t FolderQueue::SizeOfPath(size_t at) const {
    size_t size = root_before_.size();
    for (; at != 0; at = folders_[at].parent) {
        size += std::strlen(&names_[folders_[at].name_at]);
        if (folders_[at].parent != 0) ++size;
    }
    return size;
}

// Written from its end, because every folder knows only the one above it.
void FolderQueue::PathOf(size_t at, std::string& path) const {
    if (at == 0) {
        path = root_;
        return;
    }
    size_t left = SizeOfPath(at);
    path.resize(left);
    for (; at != 0; at = folders_[at].parent) {
        const char* const name = &names_[folders_[at].name_at];
        const size_t length = std::strlen(name);
        left -= length;
        path.replace(left, length, name, length);
        if (folders_[at].parent != 0) path[--left] = '/';
    }
    path.replace(0, left, root_before_);
}

std::string FolderQueue::PathOfFile(size_t at, const std::string& folder_path,
                                    const std::string& name) const {
    const std::string& before = at == 0 ? root_before_ : folder_path;
    std::string path;
    path.reserve(before.size() + 1 + name.size());
    path = before;
    if (at != 0) path += '/';
    path += name;
    return IsPlainPath(name) ? path : NormalizePath(path);
}

bool FolderQueue::IsOwnAncestor(size_t at, uint64_t volume, uint64_t file_id) const {
    for (; at != kNoParent; at = folders_[at].parent) {
        if (folders_[at].volume == volume && folders_[at].file_id == file_id) return true;
    }
    return false;
}

void FolderQueue::Free() {
    std::vector<Folder>().swap(folders_);
    std::vector<char>().swap(names_);
}
