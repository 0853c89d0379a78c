#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "SinkTest.h"
#include "Support.h"

namespace {

using skrib_test::Barrier;
using skrib_test::Gate;
using skrib_test::SkribSink;
using testing::ElementsAre;

std::string OrNone(const char* text) {
    return text == nullptr ? "(none)" : text;
}

TEST_F(SkribSink, GivesTheReceiverEveryFieldOfTheRecord) {
    std::vector<std::string> records;
    const auto receive = [](void* user, const char* logger, int level, const char* text,
                            const char* file, const char* function, int line) {
        static_cast<std::vector<std::string>*>(user)->push_back(
            std::string(logger) + "|" + std::to_string(level) + "|" + OrNone(text) + "|" +
            OrNone(file) + "|" + OrNone(function) + "|" + std::to_string(line));
    };
    EXPECT_EQ(SKRIB_SetSink(receive, &records), 0);
    SKRIB_Write(logger_, 3, "a text\nof {0} lines, %s", "src/a.cpp", "int f()", 12);
    SKRIB_Write(logger_, 1, "", nullptr, nullptr, 0);
    EXPECT_THAT(records, ElementsAre("sink|3|a text\nof {0} lines, %s|src/a.cpp|int f()|12",
                                     "sink|1||(none)|(none)|0"));
}

TEST_F(SkribSink, BringsLevelsBeyondTheEndsToTheEnds) {
    std::vector<int> levels;
    const auto receive = [](void* user, const char*, int level, const char*, const char*,
                            const char*,
                            int) { static_cast<std::vector<int>*>(user)->push_back(level); };
    SKRIB_SetSink(receive, &levels);
    for (const int level : {-5, 0, 1, 5, 6, 99}) {
        SKRIB_Write(logger_, level, "text", nullptr, nullptr, 0);
    }
    EXPECT_THAT(levels, ElementsAre(1, 1, 1, 5, 5, 5));
}

TEST_F(SkribSink, WritesWhateverTheThreshold) {
    SKRIB_SetThreshold("sink", SKRIB_LEVEL_OFF);
    int calls = 0;
    const Function count = [&](const std::string&) { ++calls; };
    Install(count);
    SKRIB_Write(logger_, SKRIB_LEVEL_TRACE, "text", nullptr, nullptr, 0);
    EXPECT_EQ(calls, 1);
    SKRIB_SetThreshold("sink", SKRIB_LEVEL_WARNING);
}

TEST_F(SkribSink, CallsTheReceiverOnTheWritingThread) {
    std::thread::id seen;
    const Function note = [&](const std::string&) { seen = std::this_thread::get_id(); };
    Install(note);
    std::thread::id writer;
    std::thread([&] {
        writer = std::this_thread::get_id();
        Write("text");
    }).join();
    EXPECT_EQ(seen, writer);
}

TEST_F(SkribSink, CallsTheReceiverOnSeveralThreadsAtOnce) {
    // Each call waits for the other: nobody passes if they come one by one.
    Barrier both(2);
    const Function meet = [&](const std::string&) { both.Arrive(); };
    Install(meet);
    std::thread other([&] { Write("there"); });
    Write("here");
    other.join();
    SUCCEED();
}

TEST_F(SkribSink, HoldsNoLockWhileTheReceiverRuns) {
    // The receiver waits for another thread that uses everything else in the meantime.
    int threshold = 0;
    const Function wait = [&](const std::string&) {
        std::thread([&] {
            void* logger = SKRIB_GetLogger("sink.other");
            SKRIB_SetThreshold("sink.other", SKRIB_LEVEL_DEBUG);
            threshold = SKRIB_GetThreshold(logger);
            SKRIB_ReleaseLogger(logger);
        }).join();
    };
    Install(wait);
    Write("text");
    EXPECT_EQ(threshold, SKRIB_LEVEL_DEBUG);
}

TEST_F(SkribSink, TakesEveryRecordOfSeveralThreads) {
    constexpr int kThreads = 4;
    constexpr int kRecords = 500;
    std::vector<std::atomic<int>> seen(kThreads * kRecords);
    const Function note = [&](const std::string& text) {
        ++seen[static_cast<std::size_t>(std::stoi(text))];
    };
    Install(note);
    Barrier start(kThreads);
    std::vector<std::thread> writers;
    for (int writer = 0; writer < kThreads; ++writer) {
        writers.emplace_back([&, writer] {
            start.Arrive();
            for (int i = 0; i < kRecords; ++i) Write(std::to_string(writer * kRecords + i));
        });
    }
    for (std::thread& writer : writers) writer.join();
    for (std::size_t i = 0; i < seen.size(); ++i) EXPECT_EQ(seen[i], 1) << i;
}

TEST_F(SkribSink, SurvivesAReceiverThatThrows) {
    int calls = 0;
    const Function fail = [&](const std::string& text) {
        ++calls;
        if (text == "int") throw 7;
        throw std::runtime_error(text);
    };
    Install(fail);
    EXPECT_NO_THROW(Write("exception"));
    EXPECT_NO_THROW(Write("int"));
    EXPECT_EQ(calls, 2);
    // Would wait for ever if a call that threw still counted as one on its way.
    EXPECT_EQ(SKRIB_SetSink(nullptr, nullptr), 0);
}

TEST_F(SkribSink, KeepsErrnoOverTheReceiver) {
    const Function change = [](const std::string&) { errno = EPERM; };
    Install(change);
    errno = EDOM;
    Write("text");
    EXPECT_EQ(errno, EDOM);
}

TEST_F(SkribSink, WaitsForTheCallsOnTheirWayBeforeItReturns) {
    Gate entered;
    Gate leave;
    std::atomic<bool> left{false};
    std::atomic<bool> returned{false};
    bool left_at_return = false;
    const Function former = [&](const std::string& text) {
        if (text != "hold") return;
        entered.Open();
        leave.Pass();
        left = true;
    };
    std::atomic<int> to_next{0};
    const Function next = [&](const std::string&) { ++to_next; };
    Install(former);
    std::thread writer([&] { Write("hold"); });
    entered.Pass();
    std::thread setter([&] {
        Install(next);
        left_at_return = left;
        returned = true;
    });
    // The first record that reaches the next receiver shows the change done; the rest give a
    // call that does not wait every chance to return.
    while (to_next < 5000) Write("other");
    EXPECT_FALSE(returned);
    leave.Open();
    writer.join();
    setter.join();
    EXPECT_TRUE(left_at_return);
}

TEST_F(SkribSink, NeverCallsAReceiverAfterItsReplacement) {
    // A call that came late would use what is gone, which the sanitizers see as well.
    struct Guest {
        std::atomic<bool> alive{true};
        std::atomic<int>* late;
        std::atomic<int>* calls;
    };
    const auto receive = [](void* user, const char*, int, const char*, const char*, const char*,
                            int) {
        auto* guest = static_cast<Guest*>(user);
        ++*guest->calls;
        if (!guest->alive) ++*guest->late;
    };
    std::atomic<int> late{0};
    std::atomic<int> calls{0};
    std::atomic<bool> stop{false};
    std::unique_ptr<Guest> guest(new Guest{{true}, &late, &calls});
    SKRIB_SetSink(receive, guest.get());
    std::vector<std::thread> writers;
    for (int i = 0; i < 3; ++i) {
        writers.emplace_back([&] {
            while (!stop) Write("text");
        });
    }
    for (int i = 0; i < 100; ++i) {
        const int before = calls;
        while (calls == before) std::this_thread::yield();
        std::unique_ptr<Guest> successor(new Guest{{true}, &late, &calls});
        SKRIB_SetSink(receive, successor.get());
        guest->alive = false;
        guest = std::move(successor);
    }
    stop = true;
    for (std::thread& writer : writers) writer.join();
    SKRIB_SetSink(nullptr, nullptr);
    EXPECT_EQ(late, 0);
}

TEST_F(SkribSink, CanBeReplacedFromInsideTheReceiver) {
    std::vector<std::string> to_second;
    const Function second = [&](const std::string& text) { to_second.push_back(text); };
    std::vector<std::string> to_first;
    std::optional<int> result;
    const Function first = [&](const std::string& text) {
        to_first.push_back(text);
        result = Install(second);
    };
    Install(first);
    Write("one");
    Write("two");
    EXPECT_EQ(result, 0);
    EXPECT_THAT(to_first, ElementsAre("one"));
    EXPECT_THAT(to_second, ElementsAre("two"));
}

TEST_F(SkribSink, DoesNotWaitForOthersWhenReplacedFromInside) {
    Gate entered;
    Gate leave;
    const Function next = [](const std::string&) {};
    const Function former = [&](const std::string& text) {
        if (text == "hold") {
            entered.Open();
            leave.Pass();
        } else {
            Install(next);
        }
    };
    Install(former);
    std::thread writer([&] { Write("hold"); });
    entered.Pass();
    Write("replace");  // hangs here if it waits
    leave.Open();
    writer.join();
    // And whoever comes later waits for the first call, though its receiver is the last but
    // one: former must not be in use any more when it goes out of scope.
    EXPECT_EQ(SKRIB_SetSink(nullptr, nullptr), 0);
}

TEST_F(SkribSink, WaitsForAnEarlierReceiverThatWasReplacedFromInside) {
    Gate replaced;
    Gate leave;
    std::atomic<bool> left{false};
    std::atomic<bool> returned{false};
    bool left_at_return = false;
    std::atomic<int> to_last{0};
    const Function last = [&](const std::string&) { ++to_last; };
    const Function second = [](const std::string&) {};
    const Function first = [&](const std::string&) {
        Install(second);
        replaced.Open();
        leave.Pass();
        left = true;
    };
    Install(first);
    std::thread writer([&] { Write("text"); });
    replaced.Pass();
    std::thread setter([&] {
        Install(last);
        left_at_return = left;
        returned = true;
    });
    while (to_last < 5000) Write("other");
    EXPECT_FALSE(returned);
    leave.Open();
    writer.join();
    setter.join();
    EXPECT_TRUE(left_at_return);
}

TEST_F(SkribSink, LetsTwoReceiversReplaceEachOther) {
    Barrier both(2);
    Gate second_installed;
    const Function last = [](const std::string&) {};
    const Function second = [&](const std::string&) {
        both.Arrive();
        Install(last);
    };
    const Function first = [&](const std::string&) {
        Install(second);
        second_installed.Open();
        both.Arrive();
        Install(last);
    };
    Install(first);
    std::thread other([&] { Write("in the first"); });
    second_installed.Pass();
    Write("in the second");
    other.join();
    SUCCEED();
}

}  // namespace
