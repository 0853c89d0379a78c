#include "common/Log.h"

#include <limits>

#include "skrib.h"

namespace {

std::atomic<void*> logger_handle{nullptr};
std::atomic<bool> logger_released{false};

constexpr int32_t kNoThreshold = std::numeric_limits<int32_t>::max();

bool FetchLogger() {
    if (!logger_released.load()) logger_handle.store(SKRIB_GetLogger("vessa"));
    return true;
}

}  // namespace

std::atomic<void*>* GetLogger() {
    static const bool fetched = FetchLogger();
    static_cast<void>(fetched);
    return &logger_handle;
}

void ReleaseLogger() {
    logger_released.store(true);
    if (void* const handle = logger_handle.exchange(nullptr)) SKRIB_ReleaseLogger(handle);
}

int32_t LogThreshold() {
    // The handle that is there needs no look at whether it was fetched.
    void* handle = logger_handle.load(std::memory_order_acquire);
    if (handle == nullptr) handle = GetLogger()->load();
    return handle != nullptr ? SKRIB_GetThreshold(handle) : kNoThreshold;
}

void LogPlain(int32_t level, const char* text, const char* file, const char* function,
              int32_t line) {
    if (text == nullptr || !LogEnabled(level)) return;
    if (void* const handle = GetLogger()->load())
        SKRIB_Write(handle, level, text, file, function, line);
}
