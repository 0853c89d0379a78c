#include "fuzz/Fuzz.h"

#include <cstdio>
#include <cstdlib>

#include "skrib.h"

#if defined(VESSA_FUZZ_REPLAY)
#  include <unistd.h>
#endif

namespace vessa_fuzz {
namespace {

int planted = 0;

}  // namespace

bool Planted(int plant) {
    return planted == plant;
}
void SetPlanted(int plant) {
    planted = plant;
}

[[noreturn]] void Fail(const std::string& what) {
    std::fprintf(stderr, "found: %s\n", what.c_str());
    std::fflush(nullptr);
#if defined(VESSA_FUZZ_REPLAY)
    _exit(kFound);
#else
    std::abort();
#endif
}

void DropLog(int threshold) {
    SKRIB_SetSink([](void*, const char*, int, const char*, const char*, const char*, int) {},
                  nullptr);
    SKRIB_SetThreshold("vessa", threshold);
}

std::string Printable(const std::string& text) {
    std::string printable;
    for (const char c : text) {
        if (c >= 32 && c < 127 && c != '\\') {
            printable += c;
            continue;
        }
        char code[8];
        std::snprintf(code, sizeof code, "\\x%02X", static_cast<unsigned>(c) & 0xFFU);
        printable += code;
    }
    return "\"" + printable + "\"";
}

void ExpectSame(const std::string& actual, const std::string& expected, const char* what) {
    if (actual != expected)
        Fail(std::string(what) + ": " + Printable(actual) + " instead of " + Printable(expected));
}

}  // namespace vessa_fuzz
