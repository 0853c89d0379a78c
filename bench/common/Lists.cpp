#include "common/Lists.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "common/Folder.h"
#include "common/Keys.h"

namespace fs = std::filesystem;

namespace bench {
namespace {

constexpr size_t kPluginsOfOneFile = 10000;
constexpr const char* kListName = "/tarnet.xml";

// "p4/p2/p0" for 42 of 1,000.
std::string DeepPath(size_t index, size_t plugins) {
    std::string path;
    for (size_t unit = plugins / 10; unit >= 1; unit /= 10)
        path += "/p" + std::to_string(index / unit % 10);
    return path;
}

}  // namespace

const char* NameOf(Shape shape) {
    switch (shape) {
        case Shape::kOneFile:
            return "one_file";
        case Shape::kEach:
            return "each";
        case Shape::kDeep:
            return "deep";
    }
    return "";
}

void WriteFolders(const std::string& root, Shape shape, size_t plugins) {
    for (size_t i = 0; i < plugins; ++i) {
        const std::string folder =
            root + (shape == Shape::kDeep ? DeepPath(i, plugins) : "/" + Key(i));
        fs::create_directories(folder);
        WriteFile(folder + kListName, ListText(i, 1));
    }
}

std::string ListText(size_t first, size_t count, const std::string& module) {
    std::string text = "<vessa>\n";
    for (size_t i = first; i < first + count; ++i) {
        const std::string key = Key(i);
        text += "<plugin fkey=\"" + key + "\" file=\"" +
                (module.empty() ? "./" + key + ".so" : module) + "\" delayload=\"true\"/>\n";
    }
    return text + "</vessa>\n";
}

void WriteListsFor(const std::string& root, size_t plugins, const std::string& module) {
    for (size_t first = 0; first < plugins; first += kPluginsOfOneFile) {
        const std::string folder = root + "/" + Key(first);
        fs::create_directories(folder);
        WriteFile(folder + kListName,
                  ListText(first, std::min(plugins - first, kPluginsOfOneFile), module));
    }
}

void WarmUp(const std::string& root) {
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
        if (!entry.is_regular_file()) continue;
        std::ostringstream content;
        content << std::ifstream(entry.path()).rdbuf();
    }
}

std::string RootWith(Shape shape, size_t plugins) {
    const std::string name = std::string(NameOf(shape)) + "-" + std::to_string(plugins);
    return KeptFolder(name, [&](const std::string& folder) {
        if (shape == Shape::kOneFile)
            WriteListsFor(folder, plugins, "");
        else
            WriteFolders(folder, shape, plugins);
    });
}

std::string ChangingRootWith(Shape shape, size_t plugins) {
    const std::string name =
        std::string("changing-") + NameOf(shape) + "-" + std::to_string(plugins);
    return KeptFolder(name,
                      [&](const std::string& folder) { WriteFolders(folder, shape, plugins); });
}

}  // namespace bench
