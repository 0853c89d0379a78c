#include "modules/Files.h"

#include <elf.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace hostile {
namespace {

Elf64_Ehdr Header(const std::string& module) {
    Elf64_Ehdr header;
    if (module.size() < sizeof header) throw std::runtime_error("no module");
    std::memcpy(&header, module.data(), sizeof header);
    return header;
}

// A good module with one thing changed in its header or in its first loaded segment.
template <class Change>
std::string WithHeader(Change change) {
    std::string module = GoodModule();
    Elf64_Ehdr header = Header(module);
    change(header);
    std::memcpy(module.data(), &header, sizeof header);
    return module;
}

template <class Change>
std::string WithSegment(Change change) {
    std::string module = GoodModule();
    const Elf64_Ehdr header = Header(module);
    for (std::size_t i = 0; i < header.e_phnum; ++i) {
        char* const place = module.data() + header.e_phoff + i * sizeof(Elf64_Phdr);
        Elf64_Phdr segment;
        std::memcpy(&segment, place, sizeof segment);
        if (segment.p_type != PT_LOAD) continue;
        change(segment);
        std::memcpy(place, &segment, sizeof segment);
        return module;
    }
    throw std::runtime_error("no segment");
}

// A shared object of a 32-bit machine as far as its header goes.
std::string OfI386() {
    Elf32_Ehdr header{};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = ELFCLASS32;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_ident[EI_VERSION] = EV_CURRENT;
    header.e_type = ET_DYN;
    header.e_machine = EM_386;
    header.e_version = EV_CURRENT;
    header.e_ehsize = sizeof header;
    header.e_phoff = sizeof header;
    header.e_phentsize = sizeof(Elf32_Phdr);
    header.e_phnum = 1;
    std::string file(8192, '\0');
    std::memcpy(file.data(), &header, sizeof header);
    return file;
}

std::string Noise() {
    std::string text;
    std::uint32_t state = 1;
    while (text.size() < 20000) {
        state = state * 1664525 + 1013904223;
        text.push_back(static_cast<char>(state >> 24));
    }
    return text;
}

// Whether the kind is made by what the system has instead of a regular file.
bool MakeSpecial(vessa_test::TempDir& world, const std::string& kind, const std::string& path) {
    if (kind == "missing") return true;
    if (kind == "folder")
        world.MakeFolder(path);
    else if (kind == "dangling_link")
        world.MakeLink("nobody.so", path);
    else if (kind == "device")
        world.MakeLink("/dev/zero", path);
    else if (kind == "fifo")
        return mkfifo(world.Path(path).c_str(), 0600) == 0;
    else
        return false;
    return true;
}

std::string Content(const std::string& kind) {
    if (kind == "text") return "this is not a module\n";
    if (kind == "empty") return "";
    if (kind == "noise") return Noise();
    if (kind == "i386") return OfI386();
    if (kind == "class_32") return WithHeader([](auto& h) { h.e_ident[EI_CLASS] = ELFCLASS32; });
    if (kind == "wrong_machine") return WithHeader([](auto& h) { h.e_machine = EM_SPARCV9; });
    if (kind == "wrong_byte_order")
        return WithHeader([](auto& h) { h.e_ident[EI_DATA] = ELFDATA2MSB; });
    if (kind == "executable") return WithHeader([](auto& h) { h.e_type = ET_EXEC; });
    if (kind == "object") return WithHeader([](auto& h) { h.e_type = ET_REL; });
    if (kind == "no_segments") return WithHeader([](auto& h) { h.e_phnum = 0; });
    if (kind == "segment_table_outside")
        return WithHeader([](auto& h) { h.e_phoff = 0xFFFFFFFFFFFFFF00; });
    if (kind == "segment_end_overflows")
        return WithSegment([](auto& s) {
            s.p_filesz = 0xFFFFFFFFFFFFFFFF;
            s.p_offset = 4096;
        });
    if (kind == "segment_larger_in_file") return WithSegment([](auto& s) { s.p_memsz = 1; });
    throw std::runtime_error("no kind of file " + kind);
}

}  // namespace

void MakeFile(vessa_test::TempDir& world, const std::string& kind, const std::string& path) {
    if (!MakeSpecial(world, kind, path)) world.Write(path, Content(kind));
}

std::string GoodModule() {
    std::ifstream file(vessa_test::ModulePath("good_v2"), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

std::uint64_t EndOfSegments(const std::string& module) {
    const Elf64_Ehdr header = Header(module);
    std::uint64_t end = 0;
    for (std::size_t i = 0; i < header.e_phnum; ++i) {
        Elf64_Phdr segment;
        std::memcpy(&segment, module.data() + header.e_phoff + i * sizeof segment, sizeof segment);
        if (segment.p_type == PT_LOAD) end = std::max(end, segment.p_offset + segment.p_filesz);
    }
    return end;
}

HostileWorld::HostileWorld(bool delay_load) {
    AddDelayed("good", "good_v2");
    const vessa_test::ListFile::Attributes attributes = {
        {"delayload", delay_load ? "true" : "false"}, {"loadfkeys", "true"}};
    dir.Write("tarnet/m/undeclared.xml",
              vessa_test::ListFile().Plugin("m", "./m.so", attributes).Text());
}

vessa_test::ChildOptions HostileWorld::Host(int lives, const std::vector<std::string>& keys) {
    std::vector<std::string> arguments = {std::to_string(lives)};
    arguments.insert(arguments.end(), keys.begin(), keys.end());
    return Program(HOSTILE_HOST, arguments);
}

}  // namespace hostile
