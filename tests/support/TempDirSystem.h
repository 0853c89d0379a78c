// TempDirSystem.h: the part of TempDir that each system does in its own way.
#ifndef VESSA_TESTS_SUPPORT_TEMPDIRSYSTEM_H
#define VESSA_TESTS_SUPPORT_TEMPDIRSYSTEM_H

#include <filesystem>
#include <string>

namespace vessa_test {

// A new folder where the system keeps temporary files, for this user alone: its absolute path
// without links in it, with "/" between its parts.
std::string MakeUniqueFolder();

// As std::filesystem::create_symlink, also for folders.
void MakeSymbolicLink(const std::filesystem::path& target, const std::filesystem::path& link);

}  // namespace vessa_test

#endif
