#include "module_file.h"

#include "common.h"
#include "win32/Wide.h"

namespace tova {
namespace {

#if defined(_M_ARM64) || defined(__aarch64__)
constexpr WORD kMachine = IMAGE_FILE_MACHINE_ARM64;
#else
constexpr WORD kMachine = IMAGE_FILE_MACHINE_AMD64;
#endif

constexpr char kCutShort[] = "file is cut short";

ModuleRefusal Refuse(const char* reason, DWORD error = ERROR_BAD_EXE_FORMAT) {
    ModuleRefusal refusal;
    refusal.error = error != 0 ? error : DWORD{ERROR_GEN_FAILURE};
    refusal.reason = reason;
    return refusal;
}

// Reads the whole of a part at its place, or refuses.
ModuleRefusal ReadAt(HANDLE file, uint64_t offset, void* to, DWORD size) {
    OVERLAPPED place{};
    place.Offset = static_cast<DWORD>(offset);
    place.OffsetHigh = static_cast<DWORD>(offset >> 32);
    DWORD got = 0;
    if (!ReadFile(file, to, size, &got, &place) && GetLastError() != ERROR_HANDLE_EOF)
        return Refuse("cannot be read", GetLastError());
    return got == size ? ModuleRefusal() : Refuse(kCutShort);
}

// What stands at header_offset: the mark of the format and the first of its tables.
struct Headers {
    DWORD mark;
    IMAGE_FILE_HEADER file;
    IMAGE_OPTIONAL_HEADER64 optional;
};
static_assert(sizeof(Headers) == sizeof(IMAGE_NT_HEADERS64), "as they stand in a file");

ModuleRefusal CheckHeaders(const Headers& headers) {
    if (headers.mark != IMAGE_NT_SIGNATURE) return Refuse("not a module: no PE header");
    if (headers.file.Machine == IMAGE_FILE_MACHINE_I386 && kMachine == IMAGE_FILE_MACHINE_AMD64)
        return Refuse("wrong class: not 64-bit");
    if (headers.file.Machine != kMachine) return Refuse("wrong machine");
    if (headers.optional.Magic != IMAGE_NT_OPTIONAL_HDR64_MAGIC)
        return Refuse("wrong class: not 64-bit");
    if ((headers.file.Characteristics & IMAGE_FILE_DLL) == 0)
        return Refuse("not a library that can be loaded");
    if (headers.file.NumberOfSections == 0 ||
        headers.file.SizeOfOptionalHeader < offsetof(IMAGE_OPTIONAL_HEADER64, DataDirectory))
        return Refuse("no usable table of sections");
    return ModuleRefusal();
}

ModuleRefusal CheckSection(const IMAGE_SECTION_HEADER& section, int index, uint64_t file_size) {
    const uint64_t end = uint64_t{section.PointerToRawData} + section.SizeOfRawData;
    if (section.SizeOfRawData == 0 || end <= file_size) return ModuleRefusal();
    ModuleRefusal refusal = Refuse(kCutShort);
    refusal.section = index;
    refusal.section_end = end;
    refusal.file_size = file_size;
    return refusal;
}

ModuleRefusal ExamineContent(HANDLE file, uint64_t file_size) {
    IMAGE_DOS_HEADER dos;
    ModuleRefusal refusal = ReadAt(file, 0, &dos, sizeof dos);
    if (refusal.error != 0) return refusal;
    if (dos.e_magic != IMAGE_DOS_SIGNATURE) return Refuse("not a module: no MZ header");
    if (dos.e_lfanew < 0) return Refuse("the header's place is out of range");
    const uint64_t header_offset = static_cast<uint64_t>(dos.e_lfanew);
    Headers headers;
    refusal = ReadAt(file, header_offset, &headers, sizeof headers);
    if (refusal.error == 0) refusal = CheckHeaders(headers);
    if (refusal.error != 0) return refusal;
    uint64_t offset =
        header_offset + offsetof(Headers, optional) + headers.file.SizeOfOptionalHeader;
    for (int i = 0; refusal.error == 0 && i < headers.file.NumberOfSections; ++i) {
        IMAGE_SECTION_HEADER section;
        refusal = ReadAt(file, offset, &section, sizeof section);
        if (refusal.error == 0) refusal = CheckSection(section, i, file_size);
        offset += sizeof section;
    }
    return refusal;
}

}  // namespace

ModuleRefusal ExamineModuleFile(const std::wstring& path) {
    const Handle file(CreateFileW(path.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING,
                                  FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (!file.IsValid()) return Refuse("cannot be opened", GetLastError());
    BY_HANDLE_FILE_INFORMATION about;
    if (GetFileType(file.Get()) != FILE_TYPE_DISK ||
        !GetFileInformationByHandle(file.Get(), &about) ||
        (about.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        return Refuse("not a regular file");
    return ExamineContent(file.Get(), uint64_t{about.nFileSizeHigh} << 32 | about.nFileSizeLow);
}

std::string Describe(const ModuleRefusal& refusal) {
    std::string text = refusal.reason;
    if (refusal.section >= 0) {
        text += ": section " + std::to_string(refusal.section) + " ends at " +
                std::to_string(refusal.section_end) + " of " + std::to_string(refusal.file_size);
    } else if (refusal.error != ERROR_BAD_EXE_FORMAT) {
        text += ": " + win32::ErrorText(refusal.error);
    }
    return text;
}

}  // namespace tova
