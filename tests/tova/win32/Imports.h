#ifndef TESTS_TOVA_WIN32_IMPORTS_H
#define TESTS_TOVA_WIN32_IMPORTS_H

#include <windows.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

namespace tova_test {

// The pointer through which a loaded library calls a function that it imports by name.
inline void** ImportSlot(HMODULE library, const char* function) {
    auto* const base = reinterpret_cast<std::uint8_t*>(library);
    const auto* const dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* const headers = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const auto* from = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(
        base + headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress);
    for (; from->Name != 0; ++from) {
        const auto* name = reinterpret_cast<const ULONGLONG*>(base + from->OriginalFirstThunk);
        auto** slot = reinterpret_cast<void**>(base + from->FirstThunk);
        for (; *name != 0; ++name, ++slot) {
            if (IMAGE_SNAP_BY_ORDINAL64(*name)) continue;
            const auto* const import = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + *name);
            if (std::strcmp(reinterpret_cast<const char*>(import->Name), function) == 0)
                return slot;
        }
    }
    throw std::runtime_error(std::string("not imported: ") + function);
}

/*
 * Puts a function in the place of one that a loaded library imports, for that library alone and
 * for as long as this lives:
 *
 *     const StandIn<decltype(ReadFile)> read("tova.dll", "ReadFile", &FailToRead);
 */
template <typename Function>
class StandIn {
  public:
    StandIn(const char* library, const char* function, Function* put)
        : slot_(ImportSlot(GetModuleHandleA(library), function)),
          real_(reinterpret_cast<Function*>(*slot_)) {
        Set(reinterpret_cast<void*>(put));
    }
    ~StandIn() { Set(reinterpret_cast<void*>(real_)); }
    StandIn(const StandIn&) = delete;
    StandIn& operator=(const StandIn&) = delete;

  private:
    void Set(void* function) {
        DWORD before = 0;
        VirtualProtect(slot_, sizeof *slot_, PAGE_READWRITE, &before);
        *slot_ = function;
        VirtualProtect(slot_, sizeof *slot_, before, &before);
    }

    void** const slot_;
    Function* const real_;
};

}  // namespace tova_test

#endif
