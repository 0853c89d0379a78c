// A mutex without memory for it: the runtime allocates with this program's own operators.
#include <gtest/gtest.h>

#include <new>

#include "common/Sync.h"
#include "support/Allocation.h"
#include "support/Runtime.h"

using vessa_test::AllocationFailure;
using vessa_test::Runtime;
using vessa_test::Tova;

namespace {

TEST(TovaMutex, ThrowsOutOfMemoryWhenItCannotBeMade) {
    {
        Runtime runtime;
        runtime.FailCall(Tova::MutexCreate);
        EXPECT_THROW(TOVA_Mutex(), std::bad_alloc);
    }
    bool thrown = false;
    {
        AllocationFailure failure(1);
        try {
            TOVA_Mutex mutex;
        } catch (const std::bad_alloc&) {
            thrown = true;
        }
    }
    EXPECT_TRUE(thrown);
}

}  // namespace
