#include "process/Process.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/membarrier.h>
#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <ctime>

namespace process {
namespace {

// Whether the end of the process has begun, and whether the library's own end came before it.
// Made with the first use, after the program's start has registered the end of its libraries:
// so it ends before they do, while an unload finalises the library first.
bool process_is_ending = false;
bool being_unloaded = false;

struct EndOfProcess {
    ~EndOfProcess() { process_is_ending = true; }
};

__attribute__((destructor)) void NoteFinalisation() {
    being_unloaded = !process_is_ending;
}

// The key of the slot, or why there is none: not asked for yet, refused, or given back.
constexpr int64_t kNoKeyYet = -1;
constexpr int64_t kNoKey = -2;
std::atomic<int64_t> thread_key{kNoKeyYet};

int64_t MakeKey() {
    static const EndOfProcess end;
    static const int64_t made = [] {
        pthread_key_t key = 0;
        const int64_t value = pthread_key_create(&key, &ThreadSlotEnd) == 0 ? int64_t{key} : kNoKey;
        thread_key.store(value);
        return value;
    }();
    static_cast<void>(made);
    return thread_key.load();
}

// Below 0: there is none.
int64_t Key() {
    const int64_t key = thread_key.load(std::memory_order_relaxed);
    return key != kNoKeyYet ? key : MakeKey();
}

// The working folder at load time: the loader reports a relative name as it was given, and
// the process may change its folder before anybody asks.
char working_folder_at_load[PATH_MAX];

__attribute__((constructor)) void KeepWorkingFolder() {
    if (getcwd(working_folder_at_load, sizeof working_folder_at_load) == nullptr)
        working_folder_at_load[0] = '\0';
}

const void* OwnAddress() {
    return static_cast<const void*>(working_folder_at_load);
}

}  // namespace

void* ThreadSlotGet() {
    const int64_t key = Key();
    return key >= 0 ? pthread_getspecific(static_cast<pthread_key_t>(key)) : nullptr;
}

bool ThreadSlotSet(void* value) {
    const int64_t key = Key();
    return key >= 0 && pthread_setspecific(static_cast<pthread_key_t>(key), value) == 0;
}

void ThreadSlotFree() {
    const int64_t key = thread_key.exchange(kNoKey);
    if (key >= 0) pthread_key_delete(static_cast<pthread_key_t>(key));
}

void GiveWay(unsigned round) {
    constexpr unsigned kYields = 32;
    if (round < kYields) {
        sched_yield();
        return;
    }
    constexpr long kPauseNs = 50000;
    const timespec pause{0, kPauseNs};
    // Not the library's function: a cancelled thread must not end here.
    syscall(SYS_nanosleep, &pause, nullptr);
}

bool CanFenceAllThreads() {
    return syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0) == 0;
}

bool FenceAllThreads() {
    if (syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0) == 0) return true;
    // A child of a fork may have to ask for itself.
    return CanFenceAllThreads() &&
           syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0) == 0;
}

std::string ModuleFile() {
    Dl_info info;
    if (dladdr(OwnAddress(), &info) == 0 || info.dli_fname == nullptr || info.dli_fname[0] == '\0')
        return std::string();
    std::string file = info.dli_fname;
    if (file[0] == '/') return file;
    if (working_folder_at_load[0] == '\0') return std::string();
    return std::string(working_folder_at_load) + "/" + file;
}

void* ReferenceSelf() {
    Dl_info info;
    if (dladdr(OwnAddress(), &info) == 0 || info.dli_fname == nullptr) return nullptr;
    return dlopen(info.dli_fname, RTLD_NOLOAD | RTLD_NOW);
}

void ReleaseSelf(void* reference) {
    if (reference != nullptr) dlclose(reference);
}

bool BeingUnloaded() {
    return being_unloaded;
}

bool OtherThreadsAreGone() {
    return false;
}

int32_t ProcessId() {
    return static_cast<int32_t>(getpid());
}

RegularFile::~RegularFile() {
    if (handle_ != kNone) close(static_cast<int>(handle_));
}

// By the system's calls, not the C library's streams: those make a buffer and several more calls
// for every list file.
bool RegularFile::Open(const char* path) {
    const int file = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (file < 0) return false;
    struct stat about;
    int error = 0;
    if (fstat(file, &about) != 0)
        error = errno;
    else if (!S_ISREG(about.st_mode))
        error = S_ISDIR(about.st_mode) ? EISDIR : EINVAL;
    if (error != 0) {
        close(file);
        errno = error;
        return false;
    }
    handle_ = file;
    size_ = static_cast<int64_t>(about.st_size);
    return true;
}

int64_t RegularFile::ReadWhole(char* buffer, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t read = ::read(static_cast<int>(handle_), buffer + done, size + 1 - done);
        if (read < 0 && errno == EINTR) continue;
        if (read < 0) return -1;
        if (read == 0) break;
        done += static_cast<size_t>(read);
    }
    return static_cast<int64_t>(done);
}

void SetErrorFileTooLarge() {
    errno = EFBIG;
}
void SetErrorFileChanged() {
    errno = EBUSY;
}
void SetErrorTooManyFolders() {
    errno = ELOOP;
}

}  // namespace process
