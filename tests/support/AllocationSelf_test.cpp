#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "skrib.h"
#include "support/Allocation.h"
#include "support/LogCapture.h"
#include "support/Sync.h"

namespace vessa_test {
namespace {

// Kept out of the optimiser's reach: an allocation that nobody can see may be left out.
int* Make() {
    static int* volatile kept = nullptr;
    kept = new int(1);
    return kept;
}

bool Throws() {
    try {
        delete Make();
        return false;
    } catch (const std::bad_alloc&) {
        return true;
    }
}

TEST(AllocationFailureTest, FailsTheNthAllocationOnly) {
    std::vector<bool> thrown(5);
    long count = 0;
    long failed = 0;
    {
        AllocationFailure failure(3);
        for (auto&& one : thrown) one = Throws();
        count = failure.Count();
        failed = failure.Failed();
    }
    EXPECT_EQ(thrown, (std::vector<bool>{false, false, true, false, false}));
    EXPECT_EQ(count, 5);
    EXPECT_EQ(failed, 1);
    EXPECT_FALSE(Throws());
}

TEST(AllocationFailureTest, FailsAllFromTheNthOn) {
    std::vector<bool> thrown(4);
    {
        AllocationFailure failure(2, AllocationFailure::Mode::kFromNth);
        for (auto&& one : thrown) one = Throws();
    }
    EXPECT_EQ(thrown, (std::vector<bool>{false, true, true, true}));
}

TEST(AllocationFailureTest, GivesNullFromTheFormsThatDoNotThrow) {
    bool plain = true;
    bool array = true;
    {
        AllocationFailure failure(1, AllocationFailure::Mode::kFromNth);
        void* volatile one = ::operator new(8, std::nothrow);
        void* volatile many = ::operator new[](8, std::nothrow);
        plain = one != nullptr;
        array = many != nullptr;
    }
    EXPECT_FALSE(plain);
    EXPECT_FALSE(array);
}

TEST(AllocationFailureTest, ReachesAllocationsOfLibraries) {
    const std::string text(100, 'x');
    bool thrown = false;
    {
        AllocationFailure failure(1);
        try {
            std::string copy;
            copy.reserve(text.size());
        } catch (const std::bad_alloc&) {
            thrown = true;
        }
    }
    EXPECT_TRUE(thrown);
}

TEST(AllocationFailureTest, OnlyCountsWithZero) {
    long count = 0;
    {
        AllocationFailure failure(0);
        Throws();
        Throws();
        count = failure.Count();
    }
    EXPECT_EQ(count, 2);
}

TEST(AllocationFailureTest, LeavesOtherThreadsAlone) {
    Gate armed;
    Gate done;
    bool thrown = true;
    JoiningThread thread([&] {
        armed.Wait();
        thrown = Throws();
        done.Open();
    });
    {
        AllocationFailure failure(1, AllocationFailure::Mode::kFromNth);
        AllocationPause pause;
        armed.Open();
        done.Wait();
    }
    EXPECT_FALSE(thrown);
}

TEST(AllocationFailureTest, IsPausedForTheTestsOwnCode) {
    bool during = true;
    bool after = false;
    long count = 0;
    {
        AllocationFailure failure(1);
        {
            AllocationPause outer;
            AllocationPause inner;
            during = Throws();
        }
        after = Throws();
        count = failure.Count();
    }
    EXPECT_FALSE(during);
    EXPECT_TRUE(after);
    EXPECT_EQ(count, 1);
}

TEST(AllocationFailureTest, DoesNotTouchTheCaptureOfTheLog) {
    LogCapture log;
    void* const logger = SKRIB_GetLogger("vessa");
    {
        AllocationFailure failure(1, AllocationFailure::Mode::kFromNth);
        SKRIB_Write(logger, 3, "written without memory", nullptr, nullptr, 0);
    }
    SKRIB_ReleaseLogger(logger);
    EXPECT_TRUE(log.Is({"3 written without memory"}));
}

TEST(AllocationFailureTest, AllowsOneAtATimeOnAThread) {
    bool refused = false;
    {
        AllocationFailure failure(0);
        try {
            AllocationFailure second(0);
        } catch (const std::logic_error&) {
            refused = true;
        }
    }
    EXPECT_TRUE(refused);
}

TEST(LiveBlocksTest, CountsWhatIsNotDeletedYet) {
    const long before = LiveBlocks();
    std::unique_ptr<int> one(Make());
    const long with_one = LiveBlocks();
    one.reset();
    const long after = LiveBlocks();
    EXPECT_EQ(with_one, before + 1);
    EXPECT_EQ(after, before);
}

}  // namespace
}  // namespace vessa_test
