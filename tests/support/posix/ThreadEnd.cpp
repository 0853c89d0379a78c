#include "support/ThreadEnd.h"

namespace vessa_test {
namespace {

struct Teller {
    void (*function)() = nullptr;
    ~Teller() {
        if (function != nullptr) function();
    }
};

thread_local Teller teller;

}  // namespace

void TellOfThreadEnd(void (*function)()) {
    teller.function = function;
}

}  // namespace vessa_test
