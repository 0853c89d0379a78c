#ifndef TESTS_TOVA_WIN32_IMAGE_H
#define TESTS_TOVA_WIN32_IMAGE_H

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "../Support.h"

namespace tova_test {

// A module's bytes with its headers within reach.
class Image {
  public:
    Image() : bytes_(ReadBytes(PLAIN_MODULE)) {}

    std::string Write(const TempFolder& folder, const char* name) const {
        return folder.Write(name, bytes_);
    }
    IMAGE_DOS_HEADER& Dos() { return *reinterpret_cast<IMAGE_DOS_HEADER*>(&bytes_[0]); }
    IMAGE_NT_HEADERS64& Headers() {
        return *reinterpret_cast<IMAGE_NT_HEADERS64*>(&bytes_[static_cast<size_t>(Dos().e_lfanew)]);
    }
    IMAGE_SECTION_HEADER& Section(int index) { return IMAGE_FIRST_SECTION(&Headers())[index]; }
    // The section that ends last in the file, and where.
    int LastSection() {
        int last = 0;
        for (int i = 1; i < Headers().FileHeader.NumberOfSections; ++i) {
            if (EndOfSection(i) > EndOfSection(last)) last = i;
        }
        return last;
    }
    uint64_t EndOfSections() { return EndOfSection(LastSection()); }
    size_t Size() const { return bytes_.size(); }
    void CutTo(uint64_t size) { bytes_.resize(size); }

  private:
    uint64_t EndOfSection(int index) {
        const IMAGE_SECTION_HEADER& section = Section(index);
        return section.SizeOfRawData == 0
                   ? 0
                   : uint64_t{section.PointerToRawData} + section.SizeOfRawData;
    }

    std::string bytes_;
};

}  // namespace tova_test

#endif
