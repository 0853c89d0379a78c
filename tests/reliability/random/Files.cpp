#include "Files.h"

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "ModuleSide.h"
#include "Random.h"
#include "support/ListFile.h"

namespace vessa_random {
namespace {

std::string ReadWhole(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot read " + path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

void WriteWhole(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    file.write(text.data(), static_cast<std::streamsize>(text.size()));
    if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

std::string Marked(const std::string& image, uint64_t serial, char kind) {
    std::string marked = image;
    const size_t at = marked.find(RANDOM_MARKER "0000000000000000:g");
    if (at == std::string::npos) throw std::runtime_error("the module has no marker");
    char text[64];
    std::snprintf(text, sizeof text, "%s%016llx:%c", RANDOM_MARKER,
                  static_cast<unsigned long long>(serial), kind);
    marked.replace(at, std::string(text).size(), text);
    return marked;
}

const std::string& Image(bool first_version) {
    static const std::string first = ReadWhole(RANDOM_MODULE_V1);
    static const std::string second = ReadWhole(RANDOM_MODULE_V2);
    return first_version ? first : second;
}

std::atomic<uint64_t> last_serial{0};
std::atomic<uint64_t> last_temporary{0};

}  // namespace

int ModuleFile::LoadResult() const {
    switch (kind) {
        case ModuleKind::kGood:
        case ModuleKind::kUninitFails:
            return VESSA_OK;
        case ModuleKind::kInitFails:
        case ModuleKind::kInitThrows:
            return VESSA_ERR_MODULE_INIT;
        case ModuleKind::kEntryNull:
        case ModuleKind::kSlotMissing:
            return VESSA_ERR_NO_INTERFACE;
        case ModuleKind::kMissing:
            return VESSA_ERR_NO_MODULE_FILE;
        default:
            return VESSA_ERR_MODULE_LOAD;
    }
}

Files::Files(vessa_test::LoadedLibrary& library)
    : library_(library), root_(library.folder().Path("tarnet")) {
    library.folder().MakeFolder("coming");
}

void Files::PutText(const std::string& path, const std::string& text) {
    const std::string coming =
        library_.folder().Path("coming/" + std::to_string(last_temporary.fetch_add(1)));
    WriteWhole(coming, text);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::filesystem::rename(coming, path);
}

ModuleFile Files::MakeModule(int owner, ModuleKind kind, const std::vector<std::string>& keys) {
    const uint64_t serial = (static_cast<uint64_t>(owner) << 48) + last_serial.fetch_add(1) + 1;
    Modules::Announce(serial, keys);
    return ModuleFile{kind, serial, keys};
}

void Files::PutModule(const std::string& path, const ModuleFile& file) {
    if (file.kind == ModuleKind::kGarbage) return PutText(path, "this is no module at all\n");
    const bool first_version = file.keys.empty() && file.serial % 2 == 0;
    const bool planted = TheOptions().plant == "module" && file.serial % 5 == 0;
    const char kind =
        planted && file.kind == ModuleKind::kGood ? 'm' : static_cast<char>(file.kind);
    std::string image = Marked(Image(first_version), file.serial, kind);
    // In the middle of what is mapped; behind it is much that only a debugger reads.
    if (file.kind == ModuleKind::kCut) image.resize(0x2000);
    PutText(path, image);
}

void Files::PutList(const std::string& path, const std::vector<Item>& items) {
    vessa_test::ListFile list;
    for (const Item& item : items) {
        vessa_test::ListFile::Attributes others = {{"delayload", item.delayed ? "true" : "false"},
                                                   {"note", item.note}};
        if (item.announces) others.push_back({"loadfkeys", "true"});
        list.Plugin(item.key, item.path, others);
    }
    PutText(path, list.Text());
}

void Files::PutBroken(const std::string& path) {
    PutText(path, "<vessa>\n  <plugin fkey=\"half\" fi");
}

void Files::Remove(const std::string& path) {
    std::filesystem::remove(path);
}

}  // namespace vessa_random
