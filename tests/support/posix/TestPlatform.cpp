#include "TestPlatform.h"

#include <dlfcn.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>

namespace vessa_test {

int LastSystemError() {
    return errno;
}

void SetLastSystemError(int error) {
    errno = error;
}

void SetVariable(const char* name, const char* value) {
    if (value == nullptr) {
        unsetenv(name);
    } else {
        setenv(name, value, 1);
    }
}

bool UnderWine() {
    return false;
}

long ProcessId() {
    return getpid();
}

long ThreadId() {
    return syscall(SYS_gettid);
}

void* SymbolBehind(const char* name) {
    const int error_before = errno;
    void* const symbol = dlsym(RTLD_NEXT, name);
    errno = error_before;
    if (symbol != nullptr) return symbol;
    std::fprintf(stderr, "no %s behind the stand-in\n", name);
    std::abort();
}

}  // namespace vessa_test
