// The one path form that every comparison and join uses: "/" separators, none doubled, no "./"
// steps, no "/" at the end. Text only; the file system is never touched. "..", letter case and
// relative paths stay as they are. A null pointer gives the empty text. The leading part of a
// network path, "\\server\", keeps its backslashes.
#pragma once

#include <string>
#include <string_view>

std::string NormalizePath(const char* path);
// The text up to its first zero byte.
std::string NormalizePath(const std::string& path);

// True only for a path that NormalizePath would give back as it is, and for nearly all of them:
// an empty one and a folder that ends in "/" are left to it.
bool IsPlainPath(std::string_view path);

// The parts before and after the last "/" of a normalised path; without a "/" the folder is
// empty and the name is the whole path.
std::string FolderOf(const std::string& normalized_path);
std::string FileNameOf(const std::string& normalized_path);
