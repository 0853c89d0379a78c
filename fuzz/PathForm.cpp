// The one form of paths, and the path of a module in a list file, against their rules. The input:
// the list file's path, a line end, and the module's.
#include <string>

#include "common/NormalizePath.h"
#include "fuzz/Fuzz.h"
#include "unit/PathRules.h"
#include "vessa2/PluginListOrigin.h"

const int vessa_fuzz::kPlants = 4;

namespace {

using vessa_fuzz::ExpectSame;
using vessa_fuzz::Planted;
using vessa_fuzz::Printable;

constexpr size_t kLongestPath = 4096;

void CheckForm(const std::string& path) {
    const std::string normalized = NormalizePath(path);
    std::string expected = vessa_test::TranscribedPath(path);
    if (Planted(1) && expected.size() > 1 && expected.back() == '.') expected.pop_back();
    if (Planted(2) && vessa_test::Starts(path, "./")) expected = path;
    ExpectSame(normalized, expected, "the normal form");
    ExpectSame(NormalizePath(path.c_str()), expected, "the normal form of a C text");
    ExpectSame(NormalizePath(normalized), normalized, "the normal form of a normal form");
    if (IsPlainPath(path)) ExpectSame(normalized, path, "the normal form of a plain path");
    // Folder and name are what it was made of.
    const size_t slash = normalized.rfind('/');
    const std::string joined = slash == std::string::npos
                                   ? FolderOf(normalized) + FileNameOf(normalized)
                                   : FolderOf(normalized) + "/" + FileNameOf(normalized);
    ExpectSame(joined, Planted(3) ? joined + "/" : normalized, "folder and file name");
}

void CheckModulePath(const std::string& list, const std::string& file) {
    PluginListOrigin origin(list);
    std::string expected = vessa_test::TranscribedModulePath(list, file);
    if (Planted(4) && vessa_test::Starts(file, "../")) expected = file;
    ExpectSame(origin.Finish(file), expected, "the module's path");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    text = text.substr(0, kLongestPath).c_str();
    const size_t line_end = text.find('\n');
    const std::string first = text.substr(0, line_end);
    CheckForm(first);
    if (line_end == std::string::npos) return 0;
    const std::string second = text.substr(line_end + 1);
    CheckForm(second);
    // No element has an empty one.
    if (!second.empty()) CheckModulePath(first, second);
    return 0;
}
