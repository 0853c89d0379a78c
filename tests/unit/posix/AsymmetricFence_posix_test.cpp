// The fence on all threads, when the system takes it back.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>

#include "TestPlatform.h"
#include "common/AsymmetricFence.h"
#include "common/ThreadScope.h"

struct AsymmetricFenceAccess {
    static bool IsAsymmetric() { return AsymmetricFence::is_asymmetric_.load(); }
    static void SetAsymmetric(bool is_asymmetric) {
        AsymmetricFence::is_asymmetric_.store(is_asymmetric);
    }
};

namespace {

using SystemCall = long(long, ...);

std::atomic<bool> fences_fail{false};
std::atomic<bool> fences_work{false};
std::atomic<int> fences{0};

// Without a static local: to wait for one the compiler's runtime makes system calls.
SystemCall* Real() {
    static std::atomic<SystemCall*> found{nullptr};
    if (found.load() == nullptr) found = vessa_test::FunctionBehind<SystemCall>("syscall");
    return found.load();
}

}  // namespace

STAND_IN_C(long, syscall)(long number, ...) noexcept {
    // Those of the library have two arguments; others may have as many as there can be.
    const int arguments = number == SYS_membarrier || number == SYS_nanosleep ? 2 : 6;
    va_list list;
    va_start(list, number);
    long given[6] = {};
    for (int i = 0; i < arguments; ++i) given[i] = va_arg(list, long);
    va_end(list);
    if (number == SYS_membarrier) {
        ++fences;
        if (fences_fail) {
            errno = EPERM;
            return -1;
        }
        if (fences_work) return 0;
    }
    return Real()(number, given[0], given[1], given[2], given[3], given[4], given[5]);
}

namespace {

class AsymmetricFenceOfTheSystem : public testing::Test {
  protected:
    void SetUp() override { AsymmetricFenceAccess::SetAsymmetric(false); }
    void TearDown() override {
        fences_fail = false;
        fences_work = false;
        AsymmetricFenceAccess::SetAsymmetric(false);
    }
};

TEST_F(AsymmetricFenceOfTheSystem, IsNotUsedWhereTheSystemRefusesIt) {
    fences_fail = true;
    fences = 0;
    AsymmetricFence::Prepare();
    EXPECT_EQ(fences, 1);
    EXPECT_FALSE(AsymmetricFenceAccess::IsAsymmetric());
}

TEST_F(AsymmetricFenceOfTheSystem, IsAskedForByAChangeWhileAnotherThreadHasAPlace) {
    fences_work = true;
    AsymmetricFence::Prepare();
    ASSERT_TRUE(AsymmetricFenceAccess::IsAsymmetric());
    const ThreadScope scope;
    ASSERT_EQ(ThreadPlaces::Owners(), 1);
    fences = 0;
    AsymmetricFence::Heavy();
    EXPECT_EQ(fences, 0);
    ThreadState* const other = ThreadPlaces::Take();
    AsymmetricFence::Heavy();
    EXPECT_EQ(fences, 1);
    AsymmetricFence::Light();
    EXPECT_EQ(fences, 1);
    EXPECT_TRUE(AsymmetricFenceAccess::IsAsymmetric());
    ThreadPlaces::GiveBack(other);
}

TEST_F(AsymmetricFenceOfTheSystem, IsGivenUpForGoodWhenTheSystemTakesItBack) {
    fences_work = true;
    AsymmetricFence::Prepare();
    ThreadState* const one = ThreadPlaces::Take();
    ThreadState* const two = ThreadPlaces::Take();
    fences_fail = true;
    AsymmetricFence::Heavy();
    EXPECT_FALSE(AsymmetricFenceAccess::IsAsymmetric());
    fences_fail = false;
    fences = 0;
    AsymmetricFence::Heavy();
    EXPECT_EQ(fences, 0);
    EXPECT_FALSE(AsymmetricFenceAccess::IsAsymmetric());
    ThreadPlaces::GiveBack(two);
    ThreadPlaces::GiveBack(one);
}

}  // namespace
