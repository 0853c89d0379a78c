// PathRules.h: the one form of paths, and what a module's path in a list file is, written down once
// more: slow, and the only source of what tests expect.
#ifndef VESSA_TESTS_UNIT_PATHRULES_H
#define VESSA_TESTS_UNIT_PATHRULES_H

#include <cctype>
#include <cstddef>
#include <string>

namespace vessa_test {

// The definition, step by step. Slow, and the only source of the expected forms below.
inline std::string TranscribedPath(std::string path) {
    // Backslashes, except in the leading part of a network path.
    size_t start = 0;
    if (path.compare(0, 2, "\\\\") == 0) {
        const size_t next = path.find('\\', 2);
        start = next == std::string::npos ? path.size() : next + 1;
    }
    for (size_t i = start; i < path.size(); ++i)
        if (path[i] == '\\') path[i] = '/';
    for (size_t hit = path.find("//"); hit != std::string::npos; hit = path.find("//", hit))
        path.erase(hit, 1);
    for (size_t hit = path.find("/./"); hit != std::string::npos; hit = path.find("/./", hit))
        path.erase(hit, 2);
    if (path.compare(0, 2, "./") == 0) path.erase(0, 2);
    const auto is_drive = [&](const std::string& tail) {
        return path.size() == 2 + tail.size() &&
               std::isalpha(static_cast<unsigned char>(path[0])) != 0 && path[1] == ':' &&
               path.compare(2, tail.size(), tail) == 0;
    };
    if (path == "/." || is_drive("/.")) return path.substr(0, path.size() - 1);
    if (path.size() >= 2 && path.compare(path.size() - 2, 2, "/.") == 0)
        path.erase(path.size() - 2, 2);
    if (path == "/" || is_drive("/")) return path;
    if (!path.empty() && path[path.size() - 1] == '/') path.erase(path.size() - 1);
    return path;
}

inline bool Starts(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// How a module's path is made, step by step and always with every step.
inline std::string TranscribedModulePath(const std::string& list, std::string file) {
    if (Starts(file, "./") || Starts(file, "../")) {
        const std::string normalized = TranscribedPath(list);
        const size_t last = normalized.rfind('/');
        std::string base = last == std::string::npos ? "" : normalized.substr(0, last);
        if (Starts(file, "./")) file.erase(0, 2);
        while (Starts(file, "../")) {
            file.erase(0, 3);
            const size_t slash = base.rfind('/');
            if (slash == std::string::npos) return std::string();
            base.resize(slash);
        }
        file = base + "/" + file;
    }
    return TranscribedPath(file);
}

}  // namespace vessa_test

#endif
