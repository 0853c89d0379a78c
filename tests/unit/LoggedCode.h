// LoggedCode.h: how results and system errors stand in messages.
#ifndef VESSA_TESTS_UNIT_LOGGEDCODE_H
#define VESSA_TESTS_UNIT_LOGGEDCODE_H

#include <cstdint>
#include <cstdio>
#include <string>

namespace vessa_test {

// "-1/FFFFFFFFFFFFFFFF", "13/D"
inline std::string Code(int code) {
    char text[48];
    std::snprintf(text, sizeof text, "%d/%llX", code,
                  static_cast<unsigned long long>(static_cast<int64_t>(code)));
    return text;
}

}  // namespace vessa_test

#endif
