#include <atomic>
#include <cstring>

#include "common.h"

namespace {
std::atomic<int32_t> g_users{0};
}  // namespace

int TOVA_Init(void) {
    g_users.fetch_add(1);
    return 0;
}

int TOVA_Fini(void) {
    g_users.fetch_sub(1);
    return 0;
}

int TOVA_GetSystemLastError(void) {
    return static_cast<int>(GetLastError());
}

char* TOVA_Strncpy(char* to, const char* from, size_t n) {
    if (n == 0) return to;
    const size_t length = strnlen(from, n);
    std::memcpy(to, from, length);
    if (length < n) to[length] = '\0';
    return to;
}
