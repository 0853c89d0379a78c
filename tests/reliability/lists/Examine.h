// Examine.h: what the library makes of one hostile list file, in a child process of its own, on a
// thread with a stack of 256 KiB.
//
// The file is met twice, beside a good list each time: by the first scan, where it is new, and as
// the change of a list that is in force. Both times what is registered afterwards is what the
// expectation says, all of it, and otherwise what was registered before; the good list's plug-in
// gives an instance; and the log has the expected lines of warnings and errors and no others.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "reliability/lists/ListCase.h"

namespace vessa_lists {

// A sanitizer makes the code several times slower, keeps what was freed, leaves room between blocks
// and reserves terabytes: with one, time has four times the limit and memory none.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kHasSanitizer = true;
#elif defined(__has_feature)
#  if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kHasSanitizer = true;
#  else
constexpr bool kHasSanitizer = false;
#  endif
#else
constexpr bool kHasSanitizer = false;
#endif

// The clock is the thread's own processor time: what else the machine does is not the list's fault.
constexpr long kMostProcessorMs = kHasSanitizer ? 1000 : 250;
// Of address space that the child may take on top of what it has, and of memory that it fills.
constexpr long kMostKiB = 64 * 1024;
constexpr std::size_t kStackBytes = 256 * 1024;

struct Examination {
    // Empty: everything is as it should be.
    std::vector<std::string> problems;
    long processor_ms = 0;  // the longest of the steps
    long grown_kib = 0;     // with a sanitizer 0
};

// The planted function runs with the library's work in the same measured step: a fault that the
// examination has to see.
Examination Examine(const ListCase& list_case, const std::function<void()>& planted = nullptr);

// The same for each truncation of the case's content, all in one child, as the case's cuts say.
Examination ExamineTruncations(const ListCase& list_case);

}  // namespace vessa_lists
