#include "../ChildSystem.h"

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

namespace {
std::atomic<long> clock_offset_s{0};
}

// Stands in for the system's.
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock,
                                                                    timespec* time) noexcept {
    const long result = syscall(SYS_clock_gettime, clock, time);
    if (result == 0 && clock == CLOCK_MONOTONIC) time->tv_sec += clock_offset_s;
    return static_cast<int>(result);
}

namespace skrib_test {

std::vector<std::string> Arguments(int count, char** arguments) {
    return {arguments + 1, arguments + count};
}

void LimitLife() {
    alarm(100);
}

void Die() {
    _exit(0);
}

void MoveClock(long seconds) {
    clock_offset_s += seconds;
}

}  // namespace skrib_test
