#ifndef TESTS_TOVA_WIN32_EXPORTTABLE_H
#define TESTS_TOVA_WIN32_EXPORTTABLE_H

#include <windows.h>

#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>

namespace tova_test {

// What a loaded library's file says about its exports.
class ExportTable {
  public:
    explicit ExportTable(const char* library)
        : base_(reinterpret_cast<const std::uint8_t*>(GetModuleHandleA(library))) {
        if (base_ == nullptr) throw std::runtime_error(std::string("not loaded: ") + library);
    }

    std::string LibraryName() const { return Text(Directory().Name); }
    // Also those without a name.
    DWORD Count() const { return Directory().NumberOfFunctions; }
    DWORD FirstNumber() const { return Directory().Base; }
    std::set<std::string> Names() const {
        const auto* const places =
            reinterpret_cast<const DWORD*>(base_ + Directory().AddressOfNames);
        std::set<std::string> names;
        for (DWORD i = 0; i < Directory().NumberOfNames; ++i) names.insert(Text(places[i]));
        return names;
    }

  private:
    std::string Text(DWORD place) const { return reinterpret_cast<const char*>(base_ + place); }
    const IMAGE_EXPORT_DIRECTORY& Directory() const {
        const auto* const dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base_);
        const auto* const headers =
            reinterpret_cast<const IMAGE_NT_HEADERS*>(base_ + dos->e_lfanew);
        return *reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(
            base_ +
            headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress);
    }

    const std::uint8_t* const base_;
};

}  // namespace tova_test

#endif
