#include "module_file.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common.h"

namespace tova {
namespace {

#if defined(__x86_64__)
constexpr Elf64_Half kMachine = EM_X86_64;
#elif defined(__aarch64__)
constexpr Elf64_Half kMachine = EM_AARCH64;
#elif defined(__riscv)
constexpr Elf64_Half kMachine = EM_RISCV;
#else
#  error "name the machine that modules must be built for"
#endif

ModuleRefusal Refuse(const char* reason, int error = ENOEXEC) {
    ModuleRefusal refusal;
    refusal.error = error;
    refusal.reason = reason;
    return refusal;
}

constexpr char kUnreadable[] = "cannot be read";
constexpr char kCutShort[] = "file is cut short";

// 0, or the error of the read; a file that ends before the last byte gives ENOEXEC.
int ReadAt(int file, uint64_t offset, void* to, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t got = pread(file, static_cast<char*>(to) + done, size - done,
                                  static_cast<off_t>(offset + done));
        if (got == 0) return ENOEXEC;
        if (got > 0) {
            done += static_cast<size_t>(got);
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

// A file whose beginning is read once: it holds all that is looked at in most modules.
class HeadedFile {
  public:
    explicit HeadedFile(int file) : file_(file) {
        const ssize_t got = pread(file, head_, sizeof head_, 0);
        if (got > 0) head_size_ = static_cast<size_t>(got);
    }
    // As the function of this name.
    int ReadAt(uint64_t offset, void* to, size_t size) const {
        if (offset > head_size_ || size > head_size_ - offset)
            return tova::ReadAt(file_, offset, to, size);
        std::memcpy(to, head_ + offset, size);
        return 0;
    }

  private:
    const int file_;
    char head_[1024];
    size_t head_size_ = 0;
};

ModuleRefusal FailedRead(int error) {
    return error == ENOEXEC ? Refuse(kCutShort) : Refuse(kUnreadable, error);
}

ModuleRefusal CheckHeader(const Elf64_Ehdr& header, uint64_t file_size) {
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0)
        return Refuse("not a module: no ELF header");
    if (header.e_ident[EI_CLASS] != ELFCLASS64) return Refuse("wrong class: not 64-bit");
    if (header.e_ident[EI_DATA] != ELFDATA2LSB) return Refuse("wrong byte order");
    if (header.e_machine != kMachine) return Refuse("wrong machine");
    if (header.e_type != ET_DYN) return Refuse("not a shared object");
    if (header.e_phnum == 0 || header.e_phentsize != sizeof(Elf64_Phdr)) {
        return Refuse("no usable table of segments");
    }
    const uint64_t table_size = uint64_t{header.e_phnum} * sizeof(Elf64_Phdr);
    if (header.e_phoff > file_size || table_size > file_size - header.e_phoff) {
        return Refuse("file is cut short: the table of segments ends past it");
    }
    return ModuleRefusal();
}

ModuleRefusal CheckSegment(const Elf64_Phdr& segment, int index, uint64_t file_size) {
    if (segment.p_type != PT_LOAD && segment.p_type != PT_DYNAMIC) return ModuleRefusal();
    ModuleRefusal refusal;
    if (__builtin_add_overflow(segment.p_offset, segment.p_filesz, &refusal.segment_end)) {
        refusal = Refuse("a segment's end is out of range");
    } else if (refusal.segment_end > file_size) {
        refusal.error = ENOEXEC;
        refusal.reason = kCutShort;
        refusal.segment = index;
        refusal.file_size = file_size;
    } else if (segment.p_filesz > segment.p_memsz) {
        refusal = Refuse("a segment is larger in the file than in memory");
    }
    return refusal;
}

}  // namespace

ModuleRefusal ExamineModuleFile(const char* path) {
    const Descriptor file(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (file.value() < 0) return Refuse("cannot be opened", errno);
    struct stat status {};
    if (fstat(file.value(), &status) != 0) return Refuse(kUnreadable, errno);
    if (!S_ISREG(status.st_mode)) return Refuse("not a regular file");
    const uint64_t file_size = static_cast<uint64_t>(status.st_size);

    const HeadedFile headed(file.value());
    Elf64_Ehdr header;
    int error = headed.ReadAt(0, &header, sizeof header);
    if (error != 0) return FailedRead(error);
    ModuleRefusal refusal = CheckHeader(header, file_size);
    for (int i = 0; refusal.error == 0 && i < header.e_phnum; ++i) {
        Elf64_Phdr segment;
        const uint64_t offset = header.e_phoff + static_cast<uint64_t>(i) * sizeof segment;
        error = headed.ReadAt(offset, &segment, sizeof segment);
        refusal = error != 0 ? FailedRead(error) : CheckSegment(segment, i, file_size);
    }
    return refusal;
}

std::string Describe(const ModuleRefusal& refusal) {
    std::string text = refusal.reason;
    if (refusal.segment >= 0) {
        text += ": segment " + std::to_string(refusal.segment) + " ends at " +
                std::to_string(refusal.segment_end) + " of " + std::to_string(refusal.file_size);
    } else if (refusal.error != ENOEXEC) {
        char buffer[256];
        // The form of the call that always gives a text and may leave the buffer alone.
        text += std::string(": ") + strerror_r(refusal.error, buffer, sizeof buffer);
    }
    return text;
}

}  // namespace tova
