#include "common/NormalizePath.h"

#include <cstring>

namespace {

bool IsLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool StartsWithDrive(const std::string& path) {
    return path.size() >= 3 && IsLetter(path[0]) && path[1] == ':' && path[2] == '/';
}

// Where the conversion of backslashes starts: after the server of a network path, at the end
// if that has no further backslash.
size_t ConversionStart(const char* path, size_t length) {
    if (length < 2 || path[0] != '\\' || path[1] != '\\') return 0;
    const void* const third = std::memchr(path + 2, '\\', length - 2);
    if (third == nullptr) return length;
    return static_cast<size_t>(static_cast<const char*>(third) - path) + 1;
}

// Backslashes become "/", runs of "/" one, and "/./" one "/", in one pass.
std::string CollapseSteps(const char* path, size_t length) {
    const size_t start = ConversionStart(path, length);
    std::string result;
    result.reserve(length);
    for (size_t i = 0; i < length; ++i) {
        const char c = i >= start && path[i] == '\\' ? '/' : path[i];
        if (c == '/') {
            const size_t n = result.size();
            if (n >= 1 && result[n - 1] == '/') continue;
            if (n >= 2 && result[n - 1] == '.' && result[n - 2] == '/') {
                result.pop_back();
                continue;
            }
        }
        result += c;
    }
    return result;
}

}  // namespace

bool IsPlainPath(std::string_view path) {
    // Every step between two slashes is something, and not ".".
    size_t start = !path.empty() && path.front() == '/' ? 1 : 0;
    for (size_t i = start;; ++i) {
        const bool at_end = i == path.size();
        if (!at_end && path[i] != '/') {
            if (path[i] == '\\') return false;
            continue;
        }
        if (i == start || (i == start + 1 && path[start] == '.')) return false;
        if (at_end) return true;
        start = i + 1;
    }
}

std::string NormalizePath(const char* path) {
    if (path == nullptr) return std::string();
    const size_t length = std::strlen(path);
    if (IsPlainPath({path, length})) return std::string(path, length);
    std::string result = CollapseSteps(path, length);
    if (result.compare(0, 2, "./") == 0) result.erase(0, 2);
    if (result == "/.") return "/";
    if (result.size() == 4 && StartsWithDrive(result) && result[3] == '.')
        return result.substr(0, 3);
    const size_t n = result.size();
    if (n >= 2 && result.compare(n - 2, 2, "/.") == 0) result.erase(n - 2);
    if (result == "/" || (result.size() == 3 && StartsWithDrive(result))) return result;
    if (!result.empty() && result.back() == '/') result.pop_back();
    return result;
}

std::string NormalizePath(const std::string& path) {
    return NormalizePath(path.c_str());
}

std::string FolderOf(const std::string& normalized_path) {
    const size_t slash = normalized_path.rfind('/');
    return slash == std::string::npos ? std::string() : normalized_path.substr(0, slash);
}

std::string FileNameOf(const std::string& normalized_path) {
    const size_t slash = normalized_path.rfind('/');
    return slash == std::string::npos ? normalized_path : normalized_path.substr(slash + 1);
}
