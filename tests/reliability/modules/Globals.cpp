// Global objects of a hostile module, which do something while the system's loader runs them.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>

namespace {

void SayBegin() {
    static const char kText[] = "act begins\n";
    const ssize_t ignored = write(STDOUT_FILENO, kText, sizeof kText - 1);
    (void)ignored;
}

void Act() {
    SayBegin();
#if defined(GLOBAL_THROWS)
    throw std::runtime_error("a global object");
#elif defined(GLOBAL_CRASHES)
    volatile std::uintptr_t nowhere = 8;
    *reinterpret_cast<volatile int*>(nowhere) = 1;
#elif defined(GLOBAL_HANGS)
    for (;;) pause();
#elif defined(GLOBAL_EXITS)
    std::exit(7);
#else
#  error "no act"
#endif
}

struct Object {
#if defined(IN_DESTRUCTOR)
    ~Object() noexcept(false) {
        Act();
    }
#else
    Object() {
        Act();
    }
#endif
} object;

}  // namespace
