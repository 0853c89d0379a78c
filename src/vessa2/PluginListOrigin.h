#pragma once

#include <memory>
#include <string>
#include <string_view>

// Where a list file is, and what that makes of the modules' paths in it.
//
// Thread safety: none; each reader of a file has its own.
// Invariants: folder_ is the file's normalised folder with one "/" behind it.
class PluginListOrigin {
  public:
    explicit PluginListOrigin(const std::string& config_file_path);

    const std::shared_ptr<const std::string>& config_file_path() const { return path_; }
    const std::string& folder() const { return folder_; }

    // Kept: every other relative form is relative to the working folder.
    static bool IsRelative(std::string_view file);
    // A relative path, resolved and not normalised yet. Empty when it climbs above the first
    // folder.
    std::string Resolve(std::string_view file) const;
    // The path that is registered, good until the next call.
    const std::string& Finish(std::string_view file);

  private:
    std::shared_ptr<const std::string> path_;
    std::string folder_;
    bool folder_is_plain_;
    std::string finished_;
};
