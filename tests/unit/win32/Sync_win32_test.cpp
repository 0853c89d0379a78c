// A mutex without memory for it: the runtime allocates with operators of its own.
#include <gtest/gtest.h>

#include <new>

#include "common/Sync.h"
#include "support/Runtime.h"

using vessa_test::Runtime;
using vessa_test::Tova;

namespace {

TEST(TovaMutex, ThrowsOutOfMemoryWhenItCannotBeMade) {
    Runtime runtime;
    runtime.FailCall(Tova::MutexCreate);
    EXPECT_THROW(TOVA_Mutex(), std::bad_alloc);
}

}  // namespace
