#include <gtest/gtest.h>

#include <limits>
#include <thread>
#include <vector>

#include "tova.h"

TEST(Atomic, AddGivesTheValueBefore) {
    int32_t value = 40;
    EXPECT_EQ(TOVA_AtomicAdd(&value, 2), 40);
    EXPECT_EQ(value, 42);
    EXPECT_EQ(TOVA_AtomicAdd(&value, -50), 42);
    EXPECT_EQ(value, -8);
}

TEST(Atomic, AddWrapsAround) {
    int32_t value = std::numeric_limits<int32_t>::max();
    EXPECT_EQ(TOVA_AtomicAdd(&value, 1), std::numeric_limits<int32_t>::max());
    EXPECT_EQ(value, std::numeric_limits<int32_t>::min());
}

TEST(Atomic, CasStoresTheExchangeIfTheTargetEqualsTheComparand) {
    int32_t value = 5;
    EXPECT_EQ(TOVA_AtomicCas(&value, 9, 5), 5);
    EXPECT_EQ(value, 9);
}

TEST(Atomic, CasStoresNothingOtherwise) {
    int32_t value = 5;
    EXPECT_EQ(TOVA_AtomicCas(&value, 5, 9), 5);
    EXPECT_EQ(value, 5);
}

TEST(Atomic, CasOfZeroAndZeroOnlyReads) {
    int32_t value = 7;
    EXPECT_EQ(TOVA_AtomicCas(&value, 0, 0), 7);
    EXPECT_EQ(value, 7);
    value = 0;
    EXPECT_EQ(TOVA_AtomicCas(&value, 0, 0), 0);
    EXPECT_EQ(value, 0);
}

TEST(Atomic, NoAddIsLostBetweenThreads) {
    int32_t value = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&value] {
            for (int k = 0; k < 20000; ++k) TOVA_AtomicAdd(&value, 1);
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(value, 80000);
}

TEST(Atomic, OneThreadWinsEachCas) {
    int32_t turn = 0;
    int32_t wins = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&turn, &wins] {
            for (int32_t k = 0; k < 5000; ++k) {
                if (TOVA_AtomicCas(&turn, k + 1, k) == k) TOVA_AtomicAdd(&wins, 1);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wins, turn);
    EXPECT_EQ(turn, 5000);
}

TEST(Atomic, PublishesWhatWasWrittenBefore) {
    for (int i = 0; i < 200; ++i) {
        int32_t ready = 0;
        int plain = 0;
        std::thread writer([&ready, &plain] {
            plain = 17;
            TOVA_AtomicAdd(&ready, 1);
        });
        while (TOVA_AtomicCas(&ready, 0, 0) == 0) std::this_thread::yield();
        EXPECT_EQ(plain, 17);
        writer.join();
    }
}
