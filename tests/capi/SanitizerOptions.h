// SanitizerOptions.h: what a sanitizer must not look for in a child that ends on purpose
// without tidying up. Without a sanitizer it means nothing.
#ifndef VESSA_TESTS_CAPI_SANITIZEROPTIONS_H
#define VESSA_TESTS_CAPI_SANITIZEROPTIONS_H

#include <cstdlib>
#include <string>

#include "support/Child.h"

namespace vessa_test {

inline void AddSanitizerOption(ChildOptions& options, const std::string& variable,
                               const std::string& option) {
    const char* const inherited = std::getenv(variable.c_str());
    options.environment[variable] =
        (inherited != nullptr ? std::string(inherited) + ":" : std::string()) + option;
}

// For a child that forks: what only the other threads of the parent still hold would look lost
// in the forked process.
inline void LookForNoLeaks(ChildOptions& options) {
    AddSanitizerOption(options, "ASAN_OPTIONS", "detect_leaks=0");
}

// For a child that ends while the library runs: its thread is asked to end and is not joined.
inline void LookForNoUnjoinedThreads(ChildOptions& options) {
    AddSanitizerOption(options, "TSAN_OPTIONS", "report_thread_leaks=0");
}

}  // namespace vessa_test

#endif
