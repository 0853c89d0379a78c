#include "ElfFile.h"

#include <elf.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <vector>

namespace vessa_test {
namespace {

class Bytes {
  public:
    explicit Bytes(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        bytes_.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }

    template <class T>
    T At(std::uint64_t offset) const {
        if (offset > bytes_.size() || bytes_.size() - offset < sizeof(T))
            throw std::runtime_error("beyond the file's end");
        T value;
        std::memcpy(&value, bytes_.data() + offset, sizeof value);
        return value;
    }
    std::string Text(std::uint64_t offset) const {
        std::string text;
        for (char c; (c = At<char>(offset)) != '\0'; ++offset) text += c;
        return text;
    }

  private:
    std::vector<char> bytes_;
};

template <class Visit>
void ForEachSection(const Bytes& file, std::uint32_t type, Visit visit) {
    const auto header = file.At<Elf64_Ehdr>(0);
    for (unsigned i = 0; i < header.e_shnum; ++i) {
        const auto section = file.At<Elf64_Shdr>(header.e_shoff + i * sizeof(Elf64_Shdr));
        if (section.sh_type != type) continue;
        visit(section, file.At<Elf64_Shdr>(header.e_shoff + section.sh_link * sizeof(Elf64_Shdr)));
    }
}

template <class Entry, class Visit>
void ForEachEntry(const Bytes& file, std::uint32_t section_type, Visit visit) {
    ForEachSection(file, section_type, [&](const Elf64_Shdr& section, const Elf64_Shdr& texts) {
        for (std::uint64_t at = 0; at + sizeof(Entry) <= section.sh_size; at += sizeof(Entry))
            visit(file.At<Entry>(section.sh_offset + at), texts.sh_offset);
    });
}

}  // namespace

ElfFile::ElfFile(const std::string& path) {
    const Bytes file(path);
    const auto header = file.At<Elf64_Ehdr>(0);
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_type != ET_DYN)
        throw std::runtime_error("no shared library");
    for (unsigned i = 0; i < header.e_phnum; ++i) {
        const auto segment = file.At<Elf64_Phdr>(header.e_phoff + i * sizeof(Elf64_Phdr));
        if (segment.p_type == PT_TLS) has_thread_locals = true;
        if (segment.p_type == PT_GNU_STACK) has_executable_stack = (segment.p_flags & PF_X) != 0;
    }
    ForEachEntry<Elf64_Dyn>(file, SHT_DYNAMIC, [&](const Elf64_Dyn& entry, std::uint64_t texts) {
        if (entry.d_tag == DT_NEEDED) libraries.insert(file.Text(texts + entry.d_un.d_val));
        if (entry.d_tag == DT_SONAME) soname = file.Text(texts + entry.d_un.d_val);
        if (entry.d_tag == DT_TEXTREL) has_text_relocations = true;
    });
    ForEachEntry<Elf64_Sym>(file, SHT_DYNSYM, [&](const Elf64_Sym& symbol, std::uint64_t texts) {
        const std::string name = file.Text(texts + symbol.st_name);
        if (name.empty()) return;
        if (ELF64_ST_BIND(symbol.st_info) == STB_GNU_UNIQUE) has_unique_symbols = true;
        (symbol.st_shndx == SHN_UNDEF ? imported : exported).insert(name);
    });
}

}  // namespace vessa_test
