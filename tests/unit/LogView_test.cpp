// One look at the log's threshold for a stretch of code, by itself and in the exports.
#include "common/LogView.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "TestPlatform.h"
#include "modules/TestInterface.h"
#include "skrib.h"
#include "support/LogCapture.h"
#include "support/ModuleHook.h"
#include "unit/LifeCycleWorld.h"
#include "unit/LoggedCode.h"

namespace {

std::atomic<int> looks{0};

}  // namespace

STAND_IN(int, SKRIB_GetThreshold)(void* logger) {
    static const auto real = vessa_test::FunctionBehind<int(void*)>("SKRIB_GetThreshold");
    ++looks;
    return real(logger);
}

namespace vessa_test {
namespace {

using Lines = std::vector<std::string>;

void SetThreshold(int level) {
    SKRIB_SetThreshold("vessa", level);
}

TEST(LogView, ShowsWhatTheThresholdLetsThrough) {
    for (int threshold = 1; threshold <= 6; ++threshold) {
        const LogCapture log(threshold);
        const LogView view;
        for (int level = kTrace; level <= kError; ++level)
            EXPECT_EQ(view.Shows(level), threshold <= level) << threshold << ", " << level;
    }
}

TEST(LogView, LooksOnceForAStretchInWhichNothingIsWritten) {
    const LogCapture log(4);
    const int before = looks;
    LogView view;
    for (int i = 0; i < 10; ++i) {
        LOG_FORMAT_IN(view, kDebug, "{0}", i);
        LOG_PLAIN_IN(view, kInformation, "no");
    }
    EXPECT_EQ(looks, before + 1);
    SetThreshold(1);
    EXPECT_FALSE(view.Shows(kDebug));
    view.Renew();
    EXPECT_TRUE(view.Shows(kDebug));
    EXPECT_TRUE(log.Is({}));
}

TEST(LogView, LooksAgainAfterEachRecordThatItWrote) {
    for (const bool is_plain : {true, false}) {
        LogCapture log(4);
        log.OnLine("first", [] { SetThreshold(1); });
        log.OnLine("third", [] { SetThreshold(5); });
        LogView view;
        LOG_FORMAT_IN(view, kInformation, "{0}", "before");
        for (const char* const text : {"first", "second", "third", "fourth"}) {
            const int32_t level = text == std::string("first") ? kWarning : kDebug;
            if (is_plain)
                LOG_PLAIN_IN(view, level, text);
            else
                LOG_FORMAT_IN(view, level, "{0}", text);
        }
        LOG_FORMAT_IN(view, kError, "{0}", "last");
        EXPECT_TRUE(log.Is({"4 first", "2 second", "2 third", "5 last"}));
    }
}

// A started library with the plug-in "k", whose module is loaded.
class LogViewInExports : public LifeCycleTest {
  protected:
    void SetUp() override {
        LifeCycleTest::SetUp();
        world.Add("k");
        ASSERT_EQ(VESSA_Init(), VESSA_OK);
    }
    void TearDown() override {
        VESSA_Uninit();
        LifeCycleTest::TearDown();
    }

    int CreateOf(const char* fkey) { return VESSA_CreateInstance(fkey, &instance, &error); }
    int Query(const char* ikey) { return VESSA_QueryInterface(instance, ikey, &found, &error); }
    int Destroy() { return VESSA_DestroyInstance(instance, &error); }

    // The monitor's thread has its own things to say.
    static Lines Own(const LogCapture& log) { return log.SequenceFor(std::this_thread::get_id()); }

    World world;
    void* instance = nullptr;
    void* found = nullptr;
    int error = 0;
};

const Lines kCreated = {
    "2 invoke create plugin instance, param fkey = k, instance {*}, plugin_error {*}",
    "2 param fkey = k",
    "2 create tarnet instance succeeded, instance {*i}, plugin {*p}, instance counter 1, plugin "
    "file path {*f}",
    "2 create plugin instance succeeded, instance {*i}, fkey k, plugin file path {*f}",
    "2 plugin provider create plugin instance succeeded, fkey k, instance {*i}"};

const Lines kQueried = {
    "2 invoke query plugin interface, param instance = {*i}, ikey = iface, plugin_interface = "
    "{*}, plugin_error = {*}",
    "2 param instance = {*i}, ikey = iface",
    "2 param instance = {*i}, ikey = iface",
    "2 query plugin interface succeeded, interface {*q}, instance {*i}, ikey iface, plugin {*p}, "
    "plugin file path {*f}",
    "2 query plugin interface succeeded, instance {*i}, ikey iface, interface {*q}, fkey k, "
    "plugin file path {*f}",
    "2 plugin provider query plugin interface succeeded, instance {*i}, ikey iface, interface "
    "{*q}"};

const Lines kQueryRefused = {
    "2 invoke query plugin interface, param instance = {*i}, ikey = other, plugin_interface = "
    "{*}, plugin_error = {*}",
    "2 param instance = {*i}, ikey = other",
    "2 param instance = {*i}, ikey = other",
    "5 query plugin interface failed 5/5, instance {*i}, ikey other, plugin {*p}, plugin file "
    "path {*f}",
    "5 query plugin interface failed -1/FFFFFFFFFFFFFFFF, plugin_error 5/5, instance {*i}, ikey "
    "other, fkey k, plugin file path {*f}",
    "5 plugin provider query plugin interface failed -1/FFFFFFFFFFFFFFFF, plugin error 5/5, "
    "instance {*i}, ikey other"};

const Lines kDestroyed = {
    "2 invoke destroy plugin instance, param instance = {*i}, plugin_error {*}",
    "2 param instance = {*i}",
    "2 param instance = {*i}",
    "2 destroy tarnet instance succeeded, instance {*i}, plugin {*p}, instance counter 0, plugin "
    "file path {*f}",
    "2 destroy instance succeeded, instance {*i}, fkey k, plugin file path {*f}",
    "2 plugin provider destroy plugin instance succeeded, instance {*i}"};

const Lines kDestroyRefused = {
    "2 invoke destroy plugin instance, param instance = {*i}, plugin_error {*}",
    "2 param instance = {*i}",
    "4 plugin instance collection does not contain the instance, instance {*i}",
    "5 plugin provider destroy plugin instance failed " + Code(VESSA_ERR_ARGUMENT) +
        ", plugin error 0/0, instance {*i}"};

const Lines kCreateRefused = {
    "2 invoke create plugin instance, param fkey = none, instance {*}, plugin_error {*}",
    "2 param fkey = none", "4 fkey not found in plugin collection, fkey none",
    "5 plugin provider create plugin instance failed " + Code(VESSA_ERR_NOT_REGISTERED) +
        ", fkey none, plugin error 0/0"};

Lines From(int threshold, const std::vector<Lines>& parts) {
    Lines shown;
    for (const Lines& part : parts)
        for (const std::string& line : part)
            if (line[0] - '0' >= threshold) shown.push_back(line);
    return shown;
}

TEST_F(LogViewInExports, AChainOfCallsWritesTheSameRecordsFromEachThresholdOn) {
    for (int threshold = 1; threshold <= 6; ++threshold) {
        const LogCapture log(threshold);
        EXPECT_EQ(CreateOf("k"), VESSA_OK);
        EXPECT_EQ(Query("iface"), VESSA_OK);
        EXPECT_EQ(Query("other"), VESSA_FAILED);
        EXPECT_EQ(Destroy(), VESSA_OK);
        EXPECT_EQ(Destroy(), VESSA_ERR_ARGUMENT);
        EXPECT_EQ(CreateOf("none"), VESSA_ERR_NOT_REGISTERED);
        EXPECT_TRUE(
            LinesAre(Own(log), From(threshold, {kCreated, kQueried, kQueryRefused, kDestroyed,
                                                kDestroyRefused, kCreateRefused})))
            << "threshold " << threshold;
    }
}

TEST_F(LogViewInExports, ACallLooksOnceBeforeTheModuleAndOnceAfterIt) {
    const LogCapture log(SKRIB_LEVEL_OFF);
    const auto looks_of = [](const std::function<int()>& call) {
        const int before = looks;
        EXPECT_EQ(call(), VESSA_OK);
        return looks - before;
    };
    EXPECT_EQ(looks_of([&] { return CreateOf("k"); }), 2);
    EXPECT_EQ(looks_of([&] { return Query("iface"); }), 2);
    EXPECT_EQ(looks_of([&] { return Destroy(); }), 2);
}

// In each of the three operations the module changes the threshold; what was written before it is
// by the old one, what comes behind it by the new one.
TEST_F(LogViewInExports, WhatAModuleSetsHoldsForTheRecordsBehindItsCall) {
    struct Part {
        const char* operation;
        const Lines& lines;
        size_t before_module;
        std::function<int()> call;
    };
    const Part parts[] = {
        {"CreateInstance_V2", kCreated, 2, [&] { return CreateOf("k"); }},
        {"QueryInterface", kQueried, 3, [&] { return Query("iface"); }},
        {"DestroyInstance", kDestroyed, 3, [&] { return Destroy(); }},
    };
    for (const int after : {SKRIB_LEVEL_OFF, 2}) {
        const int before = after == 2 ? SKRIB_LEVEL_OFF : 2;
        for (const Part& part : parts) {
            ModuleHook hook;
            hook.On("k", part.operation, [&](ModuleCall&) { SetThreshold(after); });
            const LogCapture log(before);
            EXPECT_EQ(part.call(), VESSA_OK);
            const auto module = part.lines.begin() + static_cast<long>(part.before_module);
            EXPECT_TRUE(LinesAre(Own(log), before == 2 ? Lines(part.lines.begin(), module)
                                                       : Lines(module, part.lines.end())))
                << part.operation;
        }
    }
}

TEST_F(LogViewInExports, WhatAReceiverSetsHoldsForTheRecordsBehindItsOwn) {
    LogCapture log(2);
    log.OnLine("2 param fkey = k", [] { SetThreshold(SKRIB_LEVEL_OFF); });
    EXPECT_EQ(CreateOf("k"), VESSA_OK);
    EXPECT_TRUE(LinesAre(Own(log), Lines(kCreated.begin(), kCreated.begin() + 2)));
    EXPECT_EQ(Destroy(), VESSA_OK);
}

}  // namespace
}  // namespace vessa_test
