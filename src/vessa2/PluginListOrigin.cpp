#include "vessa2/PluginListOrigin.h"

#include <cstring>

#include "common/NormalizePath.h"

namespace {

template <size_t kSize>
bool StartsWith(std::string_view text, const char (&prefix)[kSize]) {
    return text.size() >= kSize - 1 && std::memcmp(text.data(), prefix, kSize - 1) == 0;
}

}  // namespace

PluginListOrigin::PluginListOrigin(const std::string& config_file_path)
    : path_(std::make_shared<const std::string>(config_file_path)) {
    // The monitor's paths are normalised.
    const size_t slash = config_file_path.rfind('/');
    folder_is_plain_ = slash != std::string::npos && IsPlainPath(config_file_path);
    if (folder_is_plain_)
        folder_.assign(config_file_path, 0, slash + 1);
    else
        folder_ = FolderOf(NormalizePath(config_file_path)) + "/";
}

bool PluginListOrigin::IsRelative(std::string_view file) {
    return StartsWith(file, "./") || StartsWith(file, "../");
}

std::string PluginListOrigin::Resolve(std::string_view file) const {
    std::string_view base = std::string_view(folder_).substr(0, folder_.size() - 1);
    if (StartsWith(file, "./")) file.remove_prefix(2);
    for (; StartsWith(file, "../"); file.remove_prefix(3)) {
        const size_t slash = base.rfind('/');
        if (slash == std::string_view::npos) return std::string();
        base = base.substr(0, slash);
    }
    return std::string(base).append("/").append(file);
}

// Nearly every list has its modules at plain places: what they are joined to is plain already.
const std::string& PluginListOrigin::Finish(std::string_view file) {
    if (!IsRelative(file)) {
        finished_.assign(file);
        if (!IsPlainPath(file)) finished_ = NormalizePath(finished_);
        return finished_;
    }
    std::string_view base(folder_);
    std::string_view below = file;
    if (StartsWith(below, "./")) below.remove_prefix(2);
    while (base.size() > 1 && StartsWith(below, "../")) {
        below.remove_prefix(3);
        base.remove_suffix(1);
        base = base.substr(0, base.rfind('/') + 1);
    }
    if (folder_is_plain_ && !base.empty() && !StartsWith(below, "../") && !StartsWith(below, "/") &&
        IsPlainPath(below))
        finished_.assign(base).append(below);
    else
        finished_ = NormalizePath(Resolve(file));
    return finished_;
}
