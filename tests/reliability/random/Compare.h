// Compare.h: what every call of a worker does: junk in its out parameters, an allocation that
// fails, and the comparison of what came with what had to.
#ifndef VESSA_TESTS_RELIABILITY_RANDOM_COMPARE_H
#define VESSA_TESTS_RELIABILITY_RANDOM_COMPARE_H

#include <optional>
#include <string>

#include "Counters.h"
#include "ModuleSide.h"
#include "Random.h"
#include "support/Allocation.h"

namespace vessa_random {

inline char a_byte = 0;
inline void* const kJunk = &a_byte;
constexpr int kJunkError = 777777;

// The nth allocation of this thread fails while it lives; 0 is none.
class Shortage {
  public:
    explicit Shortage(long nth) {
        if (nth > 0) failure_.emplace(nth);
    }
    long Failed() const { return failure_ ? failure_->Failed() : 0; }

  private:
    std::optional<vessa_test::AllocationFailure> failure_;
};

inline std::string Seen(int result, const void* pointer, int error) {
    return ResultName(result) + (pointer == nullptr ? ", null" : ", not null") + ", plugin_error " +
           std::to_string(error);
}

inline void CompareCall(const std::string& about, int expected, bool expected_pointer,
                        int expected_error, int result, const void* pointer, int error) {
    CountResult(result);
    if (result == expected && (pointer != nullptr) == expected_pointer && error == expected_error)
        return;
    Mismatch(about,
             ResultName(expected) + (expected_pointer ? ", not null" : ", null") +
                 ", plugin_error " + std::to_string(expected_error),
             Seen(result, pointer, error));
}

inline void CompareResult(const std::string& about, int expected, int result) {
    CountResult(result);
    if (result != expected) Mismatch(about, ResultName(expected), ResultName(result));
}

inline int CodeOf(RandomAction action, int code) {
    return action == kRandomThrow ? -1 : code;
}

}  // namespace vessa_random

#endif
