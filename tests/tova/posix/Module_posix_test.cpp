#include <dlfcn.h>
#include <elf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "../Records.h"
#include "../Support.h"

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using testing::SizeIs;
using tova_test::ReadBytes;
using tova_test::Records;
using tova_test::TempFolder;

namespace {

// Loads it, expects a refusal with the error and gives the text of the one record.
std::string Refusal(const std::string& path, int error) {
    Records records;
    EXPECT_EQ(TOVA_LoadDSo(path.c_str()), nullptr);
    EXPECT_EQ(TOVA_GetSystemLastError(), error);
    const auto taken = records.Take();
    EXPECT_THAT(taken, SizeIs(1));
    if (taken.empty()) return "";
    EXPECT_EQ(taken[0].logger, "tova");
    EXPECT_EQ(taken[0].level, SKRIB_LEVEL_ERROR);
    EXPECT_THAT(taken[0].text, HasSubstr(path));
    return taken[0].text;
}

// A module's bytes with its header and segments within reach.
class Image {
  public:
    Image() : bytes_(ReadBytes(PLAIN_MODULE)) {}

    std::string Write(const TempFolder& folder, const char* name) const {
        return folder.Write(name, bytes_);
    }
    Elf64_Ehdr& Header() { return *reinterpret_cast<Elf64_Ehdr*>(&bytes_[0]); }
    Elf64_Phdr& Segment(int index) {
        return reinterpret_cast<Elf64_Phdr*>(&bytes_[Header().e_phoff])[index];
    }
    int SegmentOfType(Elf64_Word type) {
        for (int i = 0; i < Header().e_phnum; ++i) {
            if (Segment(i).p_type == type) return i;
        }
        throw std::runtime_error("no such segment");
    }
    // Where the last segment ends that the loader maps.
    uint64_t EndOfSegments() {
        uint64_t end = 0;
        for (int i = 0; i < Header().e_phnum; ++i) {
            const Elf64_Phdr& segment = Segment(i);
            if (segment.p_type == PT_LOAD) end = std::max(end, segment.p_offset + segment.p_filesz);
        }
        return end;
    }
    size_t Size() const { return bytes_.size(); }
    void CutTo(uint64_t size) { bytes_.resize(size); }

  private:
    std::string bytes_;
};

size_t OpenDescriptors() {
    size_t count = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        (void)entry;
        ++count;
    }
    return count;
}

}  // namespace

TEST(ModulePosix, AFifoIsRefusedWithoutBlocking) {
    TempFolder folder;
    const std::string path = folder.Path("fifo.so");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_THAT(Refusal(path, ENOEXEC), HasSubstr("not a regular file"));
}

TEST(ModulePosix, ADeviceAFolderAndASocketAreRefused) {
    EXPECT_THAT(Refusal("/dev/null", ENOEXEC), HasSubstr("not a regular file"));
    EXPECT_THAT(Refusal("/dev/zero", ENOEXEC), HasSubstr("not a regular file"));
    TempFolder folder;
    EXPECT_THAT(Refusal(folder.Path(), ENOEXEC), HasSubstr("not a regular file"));

    const std::string path = folder.Path("socket.so");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.size(), sizeof address.sun_path);
    std::memcpy(address.sun_path, path.c_str(), path.size());
    const int socket_file = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(socket_file, 0);
    ASSERT_EQ(bind(socket_file, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_THAT(Refusal(path, ENXIO), HasSubstr("cannot be opened"));
    close(socket_file);
}

TEST(ModulePosix, WhatCannotBeOpenedIsRefusedWithTheSystemsReason) {
    TempFolder folder;
    EXPECT_THAT(Refusal(folder.Path("missing.so"), ENOENT),
                AllOf(HasSubstr("cannot be opened"), HasSubstr(std::strerror(ENOENT))));
    fs::create_symlink("loop.so", folder.Path("loop.so"));
    EXPECT_THAT(Refusal(folder.Path("loop.so"), ELOOP), HasSubstr(std::strerror(ELOOP)));
}

TEST(ModulePosix, ALinkIsFollowed) {
    TempFolder folder;
    fs::create_symlink(PLAIN_MODULE, folder.Path("link.so"));
    void* const dso = TOVA_LoadDSo(folder.Path("link.so").c_str());
    ASSERT_NE(dso, nullptr);
    EXPECT_NE(TOVA_GetDsoSym(dso, "module_answer"), nullptr);
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
}

// Wherever the copying of a module stops, it is refused before the loader maps it: unrefused, a
// page past the end kills the process.
TEST(ModulePosix, AFileCutShortAnywhereIsRefused) {
    TempFolder folder;
    Image whole;
    const uint64_t end = whole.EndOfSegments();
    for (uint64_t size = 0; size < end; size += (size < 1024 ? 37 : 331)) {
        Image cut;
        cut.CutTo(size);
        EXPECT_THAT(Refusal(cut.Write(folder, "cut.so"), ENOEXEC), HasSubstr("cut short"))
            << "at " << size;
    }
    Image cut;
    cut.CutTo(end - 1);
    EXPECT_THAT(
        Refusal(cut.Write(folder, "cut.so"), ENOEXEC),
        AllOf(HasSubstr("cut short: segment "),
              HasSubstr("ends at " + std::to_string(end) + " of " + std::to_string(end - 1))));
}

TEST(ModulePosix, AFileThatLacksOnlyWhatTheLoaderNeverReadsIsLoaded) {
    TempFolder folder;
    Image image;
    ASSERT_LT(image.EndOfSegments(), image.Size());
    image.CutTo(image.EndOfSegments());
    void* const dso = TOVA_LoadDSo(image.Write(folder, "cut.so").c_str());
    ASSERT_NE(dso, nullptr);
    EXPECT_NE(TOVA_GetDsoSym(dso, "module_answer"), nullptr);
    EXPECT_EQ(TOVA_UnloadDSo(dso), 0);
}

TEST(ModulePosix, AnotherMachineClassByteOrderOrKindIsRefused) {
    TempFolder folder;
    {
        Image image;
        image.Header().e_machine = EM_S390;
        EXPECT_THAT(Refusal(image.Write(folder, "machine.so"), ENOEXEC),
                    HasSubstr("wrong machine"));
    }
    {
        Image image;
        image.Header().e_ident[EI_CLASS] = ELFCLASS32;
        EXPECT_THAT(Refusal(image.Write(folder, "class.so"), ENOEXEC), HasSubstr("wrong class"));
    }
    {
        Image image;
        image.Header().e_ident[EI_DATA] = ELFDATA2MSB;
        EXPECT_THAT(Refusal(image.Write(folder, "order.so"), ENOEXEC),
                    HasSubstr("wrong byte order"));
    }
    for (const Elf64_Half type : {Elf64_Half{ET_REL}, Elf64_Half{ET_EXEC}, Elf64_Half{ET_CORE}}) {
        Image image;
        image.Header().e_type = type;
        EXPECT_THAT(Refusal(image.Write(folder, "kind.so"), ENOEXEC),
                    HasSubstr("not a shared object"));
    }
    {
        Image image;
        image.Header().e_ident[EI_MAG1] = 'e';
        EXPECT_THAT(Refusal(image.Write(folder, "magic.so"), ENOEXEC), HasSubstr("no ELF header"));
    }
}

TEST(ModulePosix, AnUnusableTableOfSegmentsIsRefused) {
    TempFolder folder;
    {
        Image image;
        image.Header().e_phnum = 0;
        EXPECT_THAT(Refusal(image.Write(folder, "none.so"), ENOEXEC),
                    HasSubstr("no usable table of segments"));
    }
    {
        Image image;
        image.Header().e_phentsize = 32;
        EXPECT_THAT(Refusal(image.Write(folder, "size.so"), ENOEXEC),
                    HasSubstr("no usable table of segments"));
    }
    for (const uint64_t offset : {uint64_t{1} << 40, std::numeric_limits<uint64_t>::max(),
                                  std::numeric_limits<uint64_t>::max() - 55}) {
        Image image;
        image.Header().e_phoff = offset;
        EXPECT_THAT(Refusal(image.Write(folder, "offset.so"), ENOEXEC),
                    HasSubstr("table of segments ends past it"));
    }
}

TEST(ModulePosix, ASegmentThatLeavesTheFileIsRefused) {
    TempFolder folder;
    for (const Elf64_Word type : {Elf64_Word{PT_LOAD}, Elf64_Word{PT_DYNAMIC}}) {
        {
            Image image;
            image.Segment(image.SegmentOfType(type)).p_offset += uint64_t{1} << 32;
            EXPECT_THAT(
                Refusal(image.Write(folder, "past.so"), ENOEXEC),
                HasSubstr("segment " + std::to_string(image.SegmentOfType(type)) + " ends at "));
        }
        {
            Image image;
            Elf64_Phdr& segment = image.Segment(image.SegmentOfType(type));
            segment.p_offset = std::numeric_limits<uint64_t>::max() - segment.p_filesz + 1;
            EXPECT_THAT(Refusal(image.Write(folder, "overflow.so"), ENOEXEC),
                        HasSubstr("out of range"));
        }
        {
            Image image;
            Elf64_Phdr& segment = image.Segment(image.SegmentOfType(type));
            segment.p_memsz = segment.p_filesz - 1;
            EXPECT_THAT(Refusal(image.Write(folder, "memory.so"), ENOEXEC),
                        HasSubstr("larger in the file than in memory"));
        }
    }
}

TEST(ModulePosix, AMissingDependencyIsNamedInTheRecord) {
    TempFolder folder;
    const std::string path = folder.CopyOf(DEPENDENT_MODULE, "alone.so");
    Records records;
    EXPECT_EQ(TOVA_LoadDSo(path.c_str()), nullptr);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
    const auto taken = records.Take();
    ASSERT_THAT(taken, SizeIs(1));
    EXPECT_THAT(taken[0].text,
                AllOf(HasSubstr(path), HasSubstr(fs::path(PROVIDER_MODULE).filename().string()),
                      HasSubstr("cannot open shared object file")));
}

// At once: not only when the function is called. Locally: no other module lends it the symbol.
TEST(ModulePosix, AnUndefinedSymbolIsRefusedAlsoWhenAnotherModuleDefinesIt) {
    void* const provider = TOVA_LoadDSo(PROVIDER_MODULE);
    ASSERT_NE(provider, nullptr);
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "module_borrowed"), nullptr);
    Records records;
    EXPECT_EQ(TOVA_LoadDSo(UNRESOLVED_MODULE), nullptr);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
    const auto taken = records.Take();
    ASSERT_THAT(taken, SizeIs(1));
    EXPECT_THAT(taken[0].text, AllOf(HasSubstr("undefined symbol"), HasSubstr("module_borrowed")));
    EXPECT_EQ(TOVA_UnloadDSo(provider), 0);
}

TEST(ModulePosix, ABareNameIsNotLookedUpInTheSystemsFolders) {
    ASSERT_NE(dlopen("libm.so.6", RTLD_NOW | RTLD_NOLOAD), nullptr);
    TempFolder folder;
    const fs::path before = fs::current_path();
    fs::current_path(folder.Path());
    EXPECT_THAT(Refusal("libm.so.6", ENOENT), HasSubstr("cannot be opened"));
    fs::current_path(before);
}

// The dependent keeps the provider's memory, so that the handle can be examined once more.
TEST(ModulePosix, AnUnloadTooManyFailsAndWritesTheLoadersWords) {
    void* const dependent = TOVA_LoadDSo(DEPENDENT_MODULE);
    void* const provider = TOVA_LoadDSo(PROVIDER_MODULE);
    ASSERT_NE(dependent, nullptr);
    ASSERT_NE(provider, nullptr);
    EXPECT_EQ(TOVA_UnloadDSo(provider), 0);
    Records records;
    EXPECT_NE(TOVA_UnloadDSo(provider), 0);
    EXPECT_NE(TOVA_GetSystemLastError(), 0);
    const auto taken = records.Take();
    ASSERT_THAT(taken, SizeIs(1));
    EXPECT_EQ(taken[0].logger, "tova");
    EXPECT_EQ(taken[0].level, SKRIB_LEVEL_ERROR);
    EXPECT_THAT(taken[0].text, HasSubstr("not open"));
    EXPECT_EQ(TOVA_UnloadDSo(dependent), 0);
}

TEST(ModulePosix, RefusalsLeaveNoDescriptorOpen) {
    TempFolder folder;
    Image cut;
    cut.CutTo(1000);
    const std::string path = cut.Write(folder, "cut.so");
    const std::string alone = folder.CopyOf(DEPENDENT_MODULE, "alone.so");
    const Records records;
    const size_t before = OpenDescriptors();
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(TOVA_LoadDSo(path.c_str()), nullptr);
        EXPECT_EQ(TOVA_LoadDSo(alone.c_str()), nullptr);
        EXPECT_EQ(TOVA_LoadDSo(folder.Path().c_str()), nullptr);
    }
    EXPECT_EQ(OpenDescriptors(), before);
}
