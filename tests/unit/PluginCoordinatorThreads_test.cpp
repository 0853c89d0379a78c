// The coordinator on several threads: starts, stops, scans and queries at the same time.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "TestPlatform.h"
#include "support/ListFile.h"
#include "support/LogCapture.h"
#include "support/ModuleHook.h"
#include "support/Modules.h"
#include "support/Runtime.h"
#include "support/Sync.h"
#include "support/TempDir.h"
#include "vessa2/PluginCoordinator.h"

namespace {

using vessa_test::Gate;
using vessa_test::Install;
using vessa_test::JoiningThread;
using vessa_test::ListFile;
using vessa_test::LogCapture;
using vessa_test::ModuleCall;
using vessa_test::ModuleHook;
using vessa_test::Runtime;
using vessa_test::RuntimeCall;
using vessa_test::TempDir;
using vessa_test::Tova;
using Strings = std::vector<std::string>;

ListFile::Attributes Delayed() {
    return {{"delayload", "true"}};
}

class PluginCoordinatorThreads : public testing::Test {
  protected:
    PluginCoordinatorThreads() {
        coordinator_.SetPluginRoot(dir_.Path());
        coordinator_.SetConfigFilename("tarnet.xml");
    }
    ~PluginCoordinatorThreads() override {
        coordinator_.Shutdown();
        runtime_.Before(Tova::Thread_Wait, nullptr);
        runtime_.Before(Tova::SemTimedWait, nullptr);
    }

    // Declared first, so that whoever waits for them may outlive the rest.
    Gate reached_;
    Gate go_on_;
    TempDir dir_;
    Runtime runtime_;
    LogCapture log_;
    ModuleHook hook_;
    PluginCoordinator coordinator_;
};

// The scanning thread stands in the middle of a change round while the stop waits for it.
TEST_F(PluginCoordinatorThreads, AStopDuringTheReadingOfChangedFilesEndsTheRoundUnapplied) {
    const std::string list = dir_.Write("tarnet.xml", ListFile().Text());
    ASSERT_TRUE(coordinator_.Run());
    const std::string text = ListFile().Plugin("codec", "/p/codec" MODULE_SUFFIX, Delayed()).Text();
    dir_.Write("tarnet.xml", text);
    log_.Clear();
    log_.OnLine("2 param config_file_path = " + list, [this] {
        reached_.Open();
        go_on_.Wait();
    });
    // The stop has come to where it waits for the thread.
    runtime_.Before(Tova::Thread_Wait, [this](RuntimeCall&) { go_on_.Open(); });
    runtime_.StartTick();
    reached_.Wait();

    bool stopped = false;
    JoiningThread stop([&] { stopped = coordinator_.Shutdown(); });
    stop.Join();
    EXPECT_TRUE(stopped);
    EXPECT_FALSE(coordinator_.IsRunning());
    EXPECT_TRUE(log_.Is({
        "1 config file changed begin",
        "2 param config_file_path = " + list,
        "3 invoke Shutdown func",
        "3 param file_path = " + list,
        "2 file path " + list + ", config " + text,
        "2 param xml = " + text,
        "2 read plugin list succeeded",
        "3 plugin coordinator already shutdown, config change igored",
        "3 stop config monitor succeeded",
        "3 shutdown PluginCoordinator succeeded, plugin root " + dir_.Path() +
            ", config filename tarnet.xml",
    }));
    PluginConfigItem item;
    EXPECT_FALSE(coordinator_.FindPluginConfig("codec", item));
    EXPECT_TRUE(coordinator_.provider().IsEmpty());
}

TEST_F(PluginCoordinatorThreads, AStopDuringTheRegistrationWaitsAndTakesItBack) {
    dir_.Write("tarnet.xml", ListFile().Text());
    ASSERT_TRUE(coordinator_.Run());
    Install(dir_, "good_v2", "codec" MODULE_SUFFIX);
    dir_.Write("tarnet.xml", ListFile().Plugin("codec", "./codec" MODULE_SUFFIX).Text());
    hook_.On("codec", "Init", [this](ModuleCall&) {
        reached_.Open();
        go_on_.Wait();
    });
    runtime_.StartTick();
    reached_.Wait();
    log_.OnLine("3 invoke Shutdown func", [this] { go_on_.Open(); });
    EXPECT_TRUE(coordinator_.Shutdown());
    EXPECT_EQ(log_.Count("3 register plugin succeeded, fkey codec"), 2);
    EXPECT_EQ(log_.Count("3 unregister plugin succeeded, fkey codec"), 2);
    EXPECT_EQ(hook_.Count("codec", "Uninit"), 1);
    EXPECT_TRUE(coordinator_.provider().IsEmpty());
}

TEST_F(PluginCoordinatorThreads, AStopDuringAStartWaitsForItsEnd) {
    Install(dir_, "good_v2", "codec" MODULE_SUFFIX);
    dir_.Write("tarnet.xml", ListFile().Plugin("codec", "./codec" MODULE_SUFFIX).Text());
    hook_.On("codec", "Init", [this](ModuleCall&) {
        reached_.Open();
        go_on_.Wait();
    });
    bool started = false;
    bool stopped = false;
    {
        JoiningThread start([&] { started = coordinator_.Run(); });
        reached_.Wait();
        log_.OnLine("3 invoke Shutdown func", [this] { go_on_.Open(); });
        JoiningThread stop([&] { stopped = coordinator_.Shutdown(); });
    }
    EXPECT_TRUE(started);
    EXPECT_TRUE(stopped);
    EXPECT_FALSE(coordinator_.IsRunning());
    const Strings lines = log_.Lines();
    const auto at = [&](const std::string& part) {
        return std::find_if(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.find(part) != std::string::npos;
        });
    };
    ASSERT_NE(at("3 run PluginCoordinator succeeded"), lines.end());
    ASSERT_NE(at("3 stop config monitor succeeded"), lines.end());
    EXPECT_LT(at("3 run PluginCoordinator succeeded"), at("3 stop config monitor succeeded"));
    EXPECT_TRUE(coordinator_.provider().IsEmpty());
}

TEST_F(PluginCoordinatorThreads, ASecondStartWhileTheFirstOneScansReturnsAtOnce) {
    Install(dir_, "good_v2", "codec" MODULE_SUFFIX);
    dir_.Write("tarnet.xml", ListFile().Plugin("codec", "./codec" MODULE_SUFFIX).Text());
    hook_.On("codec", "Init", [this](ModuleCall&) {
        reached_.Open();
        go_on_.Wait();
    });
    JoiningThread start([&] { EXPECT_TRUE(coordinator_.Run()); });
    reached_.Wait();
    EXPECT_TRUE(coordinator_.Run());
    EXPECT_EQ(log_.Count("4 already run"), 1);
    go_on_.Open();
    start.Join();
    EXPECT_EQ(log_.Count("3 run PluginCoordinator succeeded"), 1);
}

TEST_F(PluginCoordinatorThreads, ASecondStopWhileTheFirstOneWaitsReturnsAtOnce) {
    dir_.Write("tarnet.xml", ListFile().Text());
    ASSERT_TRUE(coordinator_.Run());
    runtime_.Before(Tova::Thread_Wait, [this](RuntimeCall&) {
        reached_.Open();
        go_on_.Wait();
    });
    JoiningThread stop([&] { EXPECT_TRUE(coordinator_.Shutdown()); });
    reached_.Wait();
    EXPECT_TRUE(coordinator_.Shutdown());
    EXPECT_EQ(log_.Count("4 already shutdown"), 1);
    go_on_.Open();
    stop.Join();
    EXPECT_EQ(log_.Count("3 shutdown PluginCoordinator succeeded"), 1);
}

// The round waits to register, the module that it waits for asks for its own attributes.
TEST_F(PluginCoordinatorThreads, AModuleAsksForItsAttributesWhileAChangeRoundWaitsForIt) {
    Install(dir_, "good_v2", "codec" MODULE_SUFFIX);
    dir_.Write("tarnet.xml",
               ListFile().Plugin("codec", "./codec" MODULE_SUFFIX, {{"vendor", "maker"}}).Text());
    ASSERT_TRUE(coordinator_.Run());
    std::string vendor;
    Strings fkeys;
    hook_.On("codec", "CreateInstance_V2", [&](ModuleCall&) {
        reached_.Open();
        go_on_.Wait();
        PluginConfigItem item;
        if (coordinator_.FindPluginConfig("codec", item)) vendor = item.FindAttribute("vendor");
        coordinator_.GetAllFkeys(fkeys);
    });
    void* instance = nullptr;
    int plugin_error = 0;
    JoiningThread user([&] {
        EXPECT_EQ(coordinator_.provider().CreateInstance("codec", instance, plugin_error), 0);
    });
    reached_.Wait();

    dir_.Write("new/tarnet.xml",
               ListFile().Plugin("new", "/p/new" MODULE_SUFFIX, Delayed()).Text());
    // A short wait is a slice of the registration's wait for the module's call.
    runtime_.Before(Tova::SemTimedWait, [this](RuntimeCall& call) {
        if (call.milliseconds > 0 && call.milliseconds < Runtime::kLongWaitMs) go_on_.Open();
    });
    ASSERT_TRUE(runtime_.Tick());
    user.Join();
    EXPECT_EQ(vendor, "maker");
    EXPECT_EQ(fkeys, (Strings{"new", "codec"}));
    EXPECT_TRUE(log_.Contains("3 register plugin succeeded, fkey new"));
    EXPECT_EQ(coordinator_.provider().DestroyInstance(instance, plugin_error), 0);
}

// Nothing here orders the threads, so that the thread sanitizer sees every race.
TEST(PluginCoordinatorRaces, QueriesSeeOneWholeListWhateverTheRoundsDo) {
    TempDir dir;
    Runtime runtime;
    const LogCapture silence(6);
    PluginCoordinator coordinator;
    coordinator.SetPluginRoot(dir.Path());
    coordinator.SetConfigFilename("tarnet.xml");
    const auto text = [](const std::string& mark) {
        return ListFile()
            .Plugin("first", "/p/x" MODULE_SUFFIX, {{"delayload", "true"}, {"mark", mark}})
            .Plugin("last", "/p/x" MODULE_SUFFIX, {{"delayload", "true"}, {"mark", mark}})
            .Text();
    };
    dir.Write("tarnet.xml", text("0"));
    ASSERT_TRUE(coordinator.Run());
    std::atomic<bool> done{false};
    std::atomic<int> torn{0};
    const auto query = [&] {
        while (!done) {
            PluginConfigList all;
            coordinator.GetAllPluginConfigs(all);
            if (all.size() != 2 ||
                all.front().FindAttribute("mark") != all.back().FindAttribute("mark"))
                ++torn;
            PluginConfigItem item;
            if (!coordinator.FindPluginConfig("last", item)) ++torn;
            Strings fkeys;
            coordinator.GetAllFkeys(fkeys);
            if (fkeys != Strings{"first", "last"}) ++torn;
        }
    };
    {
        JoiningThread one(query);
        JoiningThread two(query);
        for (int i = 1; i <= 20; ++i) {
            dir.Write("tarnet.xml", text(std::to_string(i)));
            EXPECT_TRUE(runtime.Tick());
        }
        done = true;
    }
    EXPECT_EQ(torn, 0);
    EXPECT_TRUE(coordinator.Shutdown());
}

TEST(PluginCoordinatorRaces, QueriesMayComeDuringStartsAndStops) {
    TempDir dir;
    Runtime runtime;
    const LogCapture silence(6);
    PluginCoordinator coordinator;
    coordinator.SetPluginRoot(dir.Path());
    coordinator.SetConfigFilename("tarnet.xml");
    dir.Write("tarnet.xml",
              ListFile().Plugin("only", "/p/x" MODULE_SUFFIX, {{"delayload", "true"}}).Text());
    std::atomic<bool> done{false};
    std::atomic<int> odd{0};
    {
        JoiningThread query([&] {
            while (!done) {
                Strings fkeys;
                coordinator.GetAllFkeys(fkeys);
                if (!fkeys.empty() && fkeys != Strings{"only"}) ++odd;
                static_cast<void>(coordinator.IsRunning());
            }
        });
        for (int i = 0; i < 20; ++i) {
            EXPECT_TRUE(coordinator.Run());
            EXPECT_TRUE(coordinator.Shutdown());
        }
        done = true;
    }
    EXPECT_EQ(odd, 0);
}

}  // namespace
