// WideText.h: UTF-8 and the system's own encoding, for the support's own sources.
#ifndef VESSA_TESTS_SUPPORT_WIN32_WIDETEXT_H
#define VESSA_TESTS_SUPPORT_WIN32_WIDETEXT_H

#include <string>
#include <string_view>

namespace vessa_test {

// Throw std::system_error for what is not well-formed.
std::wstring WideText(std::string_view text);
std::string NarrowText(std::wstring_view text);

// std::system_error with the calling thread's last error.
[[noreturn]] void ThrowLastError(const std::string& what);

}  // namespace vessa_test

#endif
