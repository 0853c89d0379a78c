#include "vessa2/ConfigMonitor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <initializer_list>
#include <iterator>
#include <list>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "TestPlatform.h"
#include "support/Allocation.h"
#include "support/LogCapture.h"
#include "support/Runtime.h"
#include "support/Sync.h"
#include "support/TempDir.h"
#include "unit/LoggedCode.h"

struct ConfigMonitorAccess {
    using Files = std::list<ConfigMonitor::FileInfo>;
    static std::list<ConfigMonitor::NotifyInfo> Compare(const Files& previous, const Files& found) {
        return ConfigMonitor::Compare(previous, found);
    }
    static bool AreTheSame(const Files& previous, const Files& found) {
        return ConfigMonitor::AreTheSame(previous, found);
    }
};

namespace {

using vessa_test::AllocationFailure;
using vessa_test::AllocationPause;
using vessa_test::Code;
using vessa_test::Gate;
using vessa_test::kErrorAccess;
using vessa_test::kErrorNoResources;
using vessa_test::LogCapture;
using vessa_test::Runtime;
using vessa_test::RuntimeCall;
using vessa_test::TempDir;
using vessa_test::Tova;
using Lines = std::vector<std::string>;

Lines Described(const std::list<ConfigMonitor::NotifyInfo>& changes) {
    Lines lines;
    for (const auto& change : changes)
        lines.push_back(std::to_string(change.notify_type) + " " + change.path);
    return lines;
}

// Keeps what it is told: "1 /path" for each change.
class Collector {
  public:
    void Changed(const ConfigMonitor& monitor, const std::list<ConfigMonitor::NotifyInfo>& told) {
        const AllocationPause pause;
        EXPECT_TRUE(expected_ == nullptr || expected_ == &monitor);
        for (const std::string& line : Described(told)) changes_.push_back(line);
        ++calls_;
        if (throws_) throw std::runtime_error("a receiver that fails");
    }
    ConfigMonitor::Receiver Bound() {
        using Bound = ClassDelegate<void (Collector::*)(
            const ConfigMonitor&, const std::list<ConfigMonitor::NotifyInfo>&)>;
        ConfigMonitor::Receiver::Target target;
        target.Reset(new Bound(&Collector::Changed, this));
        ConfigMonitor::Receiver receiver;
        receiver.Set(target);
        return receiver;
    }
    // What came since the last time.
    Lines Take() {
        Lines taken;
        taken.swap(changes_);
        return taken;
    }
    int Calls() const { return calls_; }
    void Throw(bool throws) { throws_ = throws; }
    void Expect(const ConfigMonitor& monitor) { expected_ = &monitor; }

  private:
    Lines changes_;
    int calls_ = 0;
    bool throws_ = false;
    const ConfigMonitor* expected_ = nullptr;
};

class ConfigMonitorTest : public testing::Test {
  protected:
    ConfigMonitorTest() { collector_.Expect(monitor_); }
    ~ConfigMonitorTest() override { monitor_.Stop(); }

    bool Start() { return monitor_.Start(dir_.Path(), "tarnet.xml", collector_.Bound()); }

    TempDir dir_;
    Runtime runtime_;
    LogCapture log_;
    Collector collector_;
    ConfigMonitor monitor_;
};

TEST_F(ConfigMonitorTest, ReportsWhatIsThereBeforeItsStartReturns) {
    const std::string inner = dir_.Write("a/b/tarnet.xml", "");
    const std::string outer = dir_.Write("tarnet.xml", "");
    ASSERT_TRUE(Start());
    EXPECT_EQ(collector_.Take(), (Lines{"1 " + outer, "1 " + inner}));
    EXPECT_EQ(collector_.Calls(), 1);
    EXPECT_TRUE(
        log_.Is({"3 [{*}]param plugin_root = " + dir_.Path() + ", config_filename = tarnet.xml",
                 "3 start config monitor succeeded"}));
}

TEST_F(ConfigMonitorTest, ScansEvery30000Milliseconds) {
    ASSERT_TRUE(Start());
    EXPECT_EQ(runtime_.AwaitWaiters().at(0).milliseconds, 30000u);
    ASSERT_TRUE(runtime_.Tick());
    EXPECT_EQ(runtime_.AwaitWaiters().at(0).milliseconds, 30000u);
    EXPECT_EQ(runtime_.Waiters().size(), 1u);
}

TEST_F(ConfigMonitorTest, ReportsAddedChangedAndDeletedFilesOnItsOwnThread) {
    const std::string kept = dir_.Write("kept/tarnet.xml", "");
    ASSERT_TRUE(Start());
    collector_.Take();

    const std::string added = dir_.Write("added/tarnet.xml", "");
    ASSERT_TRUE(runtime_.Tick());
    EXPECT_EQ(collector_.Take(), (Lines{"1 " + added}));

    dir_.Write("added/tarnet.xml", "more");
    ASSERT_TRUE(runtime_.Tick());
    EXPECT_EQ(collector_.Take(), (Lines{"3 " + added}));

    dir_.Remove("added/tarnet.xml");
    ASSERT_TRUE(runtime_.Tick());
    EXPECT_EQ(collector_.Take(), (Lines{"2 " + added}));

    ASSERT_TRUE(runtime_.Tick());
    EXPECT_EQ(collector_.Take(), Lines{});
    EXPECT_EQ(collector_.Calls(), 4);
}

TEST_F(ConfigMonitorTest, DoesNotReportTheDeletionOfTheOnlyFile) {
    const std::string path = dir_.Write("tarnet.xml", "");
    ASSERT_TRUE(Start());
    collector_.Take();
    dir_.Remove("tarnet.xml");
    ASSERT_TRUE(runtime_.Tick());
    EXPECT_EQ(collector_.Take(), Lines{});

    // It comes out with the next file that exists.
    const std::string other = dir_.Write("other/tarnet.xml", "");
    ASSERT_TRUE(runtime_.Tick());
    EXPECT_EQ(collector_.Take(), (Lines{"1 " + other, "2 " + path}));
}

TEST_F(ConfigMonitorTest, KeepsThePreviousFilesOverAFailedScan) {
    const std::string path = dir_.Write("a/tarnet.xml", "");
    dir_.Write("b/tarnet.xml", "");
    ASSERT_TRUE(Start());
    collector_.Take();
    log_.Clear();
    dir_.Remove("a/tarnet.xml");
    runtime_.FailCall(Tova::OpenDir, 3, kErrorAccess);
    ASSERT_TRUE(runtime_.Tick());
    EXPECT_EQ(collector_.Take(), Lines{});
    EXPECT_TRUE(
        log_.Is({"5 tova open dir failed " + Code(kErrorAccess) + ", folder path " + dir_.Path("b"),
                 "5 find config file recursive failed"}));
    ASSERT_TRUE(runtime_.Tick());
    EXPECT_EQ(collector_.Take(), (Lines{"2 " + path}));
}

TEST_F(ConfigMonitorTest, RefusesMissingSettings) {
    EXPECT_FALSE(monitor_.Start("", "tarnet.xml", collector_.Bound()));
    EXPECT_FALSE(monitor_.Start(dir_.Path(), "", collector_.Bound()));
    EXPECT_TRUE(log_.Is({"3 [{*}]param plugin_root = , config_filename = tarnet.xml",
                         "5 param plugin_root should not be empty",
                         "3 [{*}]param plugin_root = " + dir_.Path() + ", config_filename = ",
                         "5 param config_filename should not be empty"}));
    EXPECT_EQ(runtime_.Calls(Tova::OpenDir), 0);
}

TEST_F(ConfigMonitorTest, IgnoresASecondStart) {
    ASSERT_TRUE(Start());
    log_.Clear();
    dir_.Write("elsewhere/other.xml", "");
    EXPECT_TRUE(monitor_.Start(dir_.Path("elsewhere"), "other.xml", collector_.Bound()));
    EXPECT_TRUE(log_.Is(
        {"3 [{*}]param plugin_root = " + dir_.Path("elsewhere") + ", config_filename = other.xml",
         "4 already started"}));
    ASSERT_TRUE(runtime_.Tick());
    EXPECT_EQ(collector_.Take(), Lines{});
}

TEST_F(ConfigMonitorTest, IgnoresASecondStop) {
    ASSERT_TRUE(Start());
    log_.Clear();
    EXPECT_TRUE(monitor_.Stop());
    EXPECT_TRUE(monitor_.Stop());
    EXPECT_TRUE(log_.Is({"3 stop config monitor succeeded", "4 already stopped"}));
}

TEST_F(ConfigMonitorTest, ForgetsEverythingWhenItIsStopped) {
    const auto before = Runtime::Census();
    const std::string path = dir_.Write("tarnet.xml", "");
    ASSERT_TRUE(Start());
    ASSERT_TRUE(monitor_.Stop());
    EXPECT_EQ(Runtime::Census().threads, before.threads);
    EXPECT_EQ(collector_.Take(), (Lines{"1 " + path}));

    Collector second;
    ASSERT_TRUE(monitor_.Start(dir_.Path(), "tarnet.xml", second.Bound()));
    EXPECT_EQ(second.Take(), (Lines{"1 " + path}));
    EXPECT_EQ(collector_.Take(), Lines{});
    ASSERT_TRUE(monitor_.Stop());
}

TEST_F(ConfigMonitorTest, DoesNothingWhenItIsNotStarted) {
    dir_.Write("tarnet.xml", "");
    monitor_.MonitorTimerProc();
    EXPECT_TRUE(log_.Is({"3 config monitor stopped, check loop exit"}));
    EXPECT_EQ(runtime_.Calls(Tova::OpenDir), 0);
}

TEST_F(ConfigMonitorTest, GoesOnWithoutAReceiver) {
    dir_.Write("tarnet.xml", "");
    EXPECT_TRUE(monitor_.Start(dir_.Path(), "tarnet.xml", ConfigMonitor::Receiver()));
    EXPECT_TRUE(runtime_.Tick());
}

TEST_F(ConfigMonitorTest, SurvivesAReceiverThatThrows) {
    const std::string path = dir_.Write("tarnet.xml", "");
    collector_.Throw(true);
    ASSERT_TRUE(Start());
    dir_.Write("tarnet.xml", "more");
    ASSERT_TRUE(runtime_.Tick());
    collector_.Throw(false);
    dir_.Write("tarnet.xml", "and more");
    ASSERT_TRUE(runtime_.Tick());
    EXPECT_EQ(collector_.Take(), (Lines{"1 " + path, "3 " + path, "3 " + path}));
}

TEST_F(ConfigMonitorTest, AFailedStartOfTheTimerForgetsNothing) {
    const std::string path = dir_.Write("tarnet.xml", "");
    runtime_.FailCall(Tova::Thread_Create, 1, kErrorNoResources);
    EXPECT_FALSE(Start());
    EXPECT_TRUE(log_.Is(
        {"3 [{*monitor}]param plugin_root = " + dir_.Path() + ", config_filename = tarnet.xml",
         "5 [{*monitor}]SetTimer failed, system error " + Code(kErrorNoResources)}));
    EXPECT_EQ(collector_.Take(), (Lines{"1 " + path}));

    // It is stopped, and what it reported stays reported.
    log_.Clear();
    EXPECT_TRUE(monitor_.Stop());
    EXPECT_TRUE(log_.Is({"4 already stopped"}));
    const std::string added = dir_.Write("added/tarnet.xml", "");
    ASSERT_TRUE(Start());
    EXPECT_EQ(collector_.Take(), (Lines{"1 " + added}));
}

// Every allocation from the end of the first scan on.
TEST_F(ConfigMonitorTest, AStartWithoutMemoryForItsTimerFailsAndCanBeRepeated) {
    const std::string path = dir_.Write("tarnet.xml", "");
    std::optional<AllocationFailure> failure;
    long closures = 0;
    long timers = 0;
    for (long n = 1;; ++n) {
        log_.Clear();
        ConfigMonitor monitor;
        Collector collector;
        const ConfigMonitor::Receiver receiver = collector.Bound();
        // Nothing is found, so that nothing but the timer needs memory after the scan.
        dir_.Remove("tarnet.xml");
        runtime_.After(Tova::CloseDir, [&](RuntimeCall&) { failure.emplace(n); });
        const bool started = monitor.Start(dir_.Path(), "tarnet.xml", receiver);
        runtime_.After(Tova::CloseDir, nullptr);
        const bool failed = failure && failure->Failed() != 0;
        failure.reset();
        dir_.Write("tarnet.xml", "");
        if (!failed) {
            EXPECT_TRUE(started);
            monitor.Stop();
            break;
        }
        EXPECT_FALSE(started) << n;
        closures += log_.Count("5 Create ClosurePtr failed, out of memory");
        timers += log_.Count("]SetTimer failed, system error ");
        EXPECT_EQ(closures + timers, n);
        EXPECT_TRUE(monitor.Start(dir_.Path(), "tarnet.xml", receiver)) << n;
        EXPECT_EQ(collector.Take(), (Lines{"1 " + path})) << n;
        EXPECT_TRUE(monitor.Stop()) << n;
    }
    EXPECT_GT(closures, 0);
    EXPECT_GT(timers, 0);
}

// Whatever allocation of a scan fails, each change is reported once: now or by the next scan.
TEST_F(ConfigMonitorTest, AScanWithoutMemoryLosesNoChange) {
    const std::string path = dir_.Write("a/tarnet.xml", "0");
    dir_.Write("b/tarnet.xml", "");
    ASSERT_TRUE(Start());
    collector_.Take();
    long failed_scans = 0;
    for (long n = 1;; ++n) {
        log_.Clear();
        const auto before = Runtime::Census();
        dir_.Write("a/tarnet.xml", std::to_string(n));
        long failed = 0;
        {
            AllocationFailure failure(n);
            monitor_.MonitorTimerProc();
            failed = failure.Failed();
        }
        EXPECT_EQ(Runtime::Census(), before) << n;
        if (failed == 0) break;
        const Lines now = collector_.Take();
        if (now.empty()) {
            ++failed_scans;
            monitor_.MonitorTimerProc();
            EXPECT_EQ(collector_.Take(), (Lines{"3 " + path})) << n;
        } else {
            EXPECT_EQ(now, (Lines{"3 " + path})) << n;
        }
    }
    EXPECT_GT(failed_scans, 3);
}

TEST_F(ConfigMonitorTest, AScanEndsBetweenTwoFoldersWhenItIsStopped) {
    Gate reached;
    Gate go_on;
    for (const char* const folder : {"a", "b", "c"})
        dir_.Write(std::string(folder) + "/tarnet.xml", "");
    ASSERT_TRUE(Start());
    collector_.Take();
    log_.Clear();
    dir_.Write("a/tarnet.xml", "more");
    const std::string held = dir_.Path("b");
    const std::string beyond = dir_.Path("c");
    std::atomic<int> opened_beyond{0};
    runtime_.Before(Tova::OpenDir, [&](RuntimeCall& call) {
        if (beyond == call.text) ++opened_beyond;
        if (held != call.text) return;
        reached.Open();
        go_on.Wait();
    });
    runtime_.Before(Tova::Thread_Wait, [&](RuntimeCall&) { go_on.Open(); });
    runtime_.StartTick();
    reached.Wait();
    ASSERT_TRUE(monitor_.Stop());
    EXPECT_EQ(opened_beyond, 0);
    EXPECT_EQ(collector_.Take(), Lines{});
    EXPECT_TRUE(
        log_.Is({"3 config monitor stopped, check loop exit", "3 stop config monitor succeeded"}));
    runtime_.Before(Tova::OpenDir, nullptr);
    runtime_.Before(Tova::Thread_Wait, nullptr);
}

TEST_F(ConfigMonitorTest, AScanThatWasDoneDeliversNothingAfterTheStop) {
    Gate reached;
    Gate go_on;
    dir_.Write("tarnet.xml", "");
    ASSERT_TRUE(Start());
    collector_.Take();
    log_.Clear();
    dir_.Write("tarnet.xml", "more");
    runtime_.After(Tova::CloseDir, [&](RuntimeCall&) {
        reached.Open();
        go_on.Wait();
    });
    runtime_.Before(Tova::Thread_Wait, [&](RuntimeCall&) { go_on.Open(); });
    runtime_.StartTick();
    reached.Wait();
    ASSERT_TRUE(monitor_.Stop());
    EXPECT_EQ(collector_.Take(), Lines{});
    EXPECT_TRUE(
        log_.Is({"3 config monitor stopped, check loop exit", "3 stop config monitor succeeded"}));
    runtime_.After(Tova::CloseDir, nullptr);
    runtime_.Before(Tova::Thread_Wait, nullptr);
}

TEST_F(ConfigMonitorTest, AStopWaitsForTheReceiver) {
    Gate reached;
    Gate go_on;
    struct Slow {
        Gate& reached;
        Gate& go_on;
        bool done = false;
        void Changed(const ConfigMonitor&, const std::list<ConfigMonitor::NotifyInfo>& told) {
            if (told.front().notify_type != ConfigMonitor::kChanged) return;
            reached.Open();
            go_on.Wait();
            done = true;
        }
    } slow{reached, go_on};
    using Bound = ClassDelegate<void (Slow::*)(const ConfigMonitor&,
                                               const std::list<ConfigMonitor::NotifyInfo>&)>;
    ConfigMonitor::Receiver::Target target;
    target.Reset(new Bound(&Slow::Changed, &slow));
    ConfigMonitor::Receiver receiver;
    receiver.Set(target);
    dir_.Write("tarnet.xml", "");
    ASSERT_TRUE(monitor_.Start(dir_.Path(), "tarnet.xml", receiver));
    dir_.Write("tarnet.xml", "more");
    runtime_.Before(Tova::Thread_Wait, [&](RuntimeCall&) { go_on.Open(); });
    runtime_.StartTick();
    reached.Wait();
    EXPECT_TRUE(monitor_.Stop());
    EXPECT_TRUE(slow.done);
    runtime_.Before(Tova::Thread_Wait, nullptr);
}

// Two scans of the test's own.
ConfigMonitorAccess::Files Files(std::initializer_list<std::pair<const char*, uint64_t>> files) {
    ConfigMonitorAccess::Files list;
    for (const auto& [path, stamp] : files) list.push_back({path, stamp});
    return list;
}

Lines Compared(const ConfigMonitorAccess::Files& previous,
               const ConfigMonitorAccess::Files& found) {
    return Described(ConfigMonitorAccess::Compare(previous, found));
}

TEST(ConfigMonitorComparison, ReportsInScanOrderAndDeletionsLastInByteOrder) {
    EXPECT_EQ(Compared(Files({{"/z", 1}, {"/b", 1}, {"/a", 1}, {"/B", 1}, {"/same", 1}}),
                       Files({{"/y", 1}, {"/same", 1}, {"/b", 2}, {"/c", 1}})),
              (Lines{"1 /y", "3 /b", "1 /c", "2 /B", "2 /a", "2 /z"}));
}

TEST(ConfigMonitorComparison, ComparesStampsForEqualityInAll64Bits) {
    EXPECT_EQ(Compared(Files({{"/a", 2}}), Files({{"/a", 1}})), (Lines{"3 /a"}));
    EXPECT_EQ(Compared(Files({{"/a", 1}}), Files({{"/a", (uint64_t{1} << 32) + 1}})),
              (Lines{"3 /a"}));
    EXPECT_EQ(Compared(Files({{"/a", 0}}), Files({{"/a", 0}})), Lines{});
}

TEST(ConfigMonitorComparison, TakesTheLaterOfTwoPreviousEntries) {
    EXPECT_EQ(Compared(Files({{"/a", 1}, {"/a", 2}}), Files({{"/a", 2}})), Lines{});
    EXPECT_EQ(Compared(Files({{"/a", 1}, {"/a", 2}}), Files({{"/a", 1}})), (Lines{"3 /a"}));
    EXPECT_EQ(Compared(Files({{"/a", 1}, {"/a", 2}}), Files({})), (Lines{"2 /a"}));
}

// With an ordered map of the former files.
Lines Transcribed(const ConfigMonitorAccess::Files& previous,
                  const ConfigMonitorAccess::Files& found) {
    std::map<std::string, std::pair<uint64_t, bool>> index;
    for (const auto& file : previous) index[file.path] = {file.stamp, false};
    Lines lines;
    for (const auto& file : found) {
        const auto known = index.find(file.path);
        if (known == index.end()) {
            lines.push_back("1 " + file.path);
            continue;
        }
        known->second.second = true;
        if (known->second.first != file.stamp) lines.push_back("3 " + file.path);
    }
    for (const auto& [path, known] : index) {
        if (!known.second) lines.push_back("2 " + path);
    }
    return lines;
}

TEST(ConfigMonitorComparison, FindsWhatAMapOfTheFormerFilesFinds) {
    std::mt19937 random(17);
    int same = 0;
    for (int round = 0; round < 20000; ++round) {
        ConfigMonitorAccess::Files previous;
        for (size_t count = random() % 8; count > 0; --count)
            previous.push_back(
                {"/" + std::string(1, static_cast<char>('a' + random() % 8)), random() % 3});
        if (random() % 2 == 0)
            previous.sort([](const auto& a, const auto& b) { return a.path < b.path; });
        ConfigMonitorAccess::Files found = previous;
        for (size_t changes = random() % 3; changes > 0 && !found.empty(); --changes) {
            auto at = std::next(found.begin(), static_cast<long>(random() % found.size()));
            switch (random() % 3) {
                case 0:
                    found.erase(at);
                    break;
                case 1:
                    found.insert(at, {"/n", random() % 3});
                    break;
                default:
                    at->stamp = random() % 3;
                    break;
            }
        }
        const Lines expected = Transcribed(previous, found);
        ASSERT_EQ(Compared(previous, found), expected) << round;
        // Whatever is taken as the same has no changes; what has one path twice need not be.
        if (!ConfigMonitorAccess::AreTheSame(previous, found)) continue;
        ++same;
        std::set<std::string> paths;
        for (const auto& file : found) paths.insert(file.path);
        if (paths.size() == found.size()) {
            ASSERT_EQ(expected, Lines{}) << round;
        }
    }
    EXPECT_GT(same, 1000);
}

TEST(ConfigMonitorComparison, TakesOnlyTheSameFilesInTheSameOrderAsTheSame) {
    const auto same = [](const ConfigMonitorAccess::Files& previous,
                         const ConfigMonitorAccess::Files& found) {
        return ConfigMonitorAccess::AreTheSame(previous, found);
    };
    EXPECT_TRUE(same(Files({}), Files({})));
    EXPECT_TRUE(same(Files({{"/b", 1}, {"/a", 2}}), Files({{"/b", 1}, {"/a", 2}})));
    EXPECT_FALSE(same(Files({{"/b", 1}, {"/a", 2}}), Files({{"/a", 2}, {"/b", 1}})));
    EXPECT_FALSE(same(Files({{"/a", 1}}), Files({{"/a", 2}})));
    EXPECT_FALSE(same(Files({{"/a", 1}}), Files({{"/b", 1}})));
    EXPECT_FALSE(same(Files({{"/a", 1}}), Files({{"/a", 1}, {"/b", 1}})));
    EXPECT_FALSE(same(Files({{"/a", 1}, {"/a", 2}}), Files({{"/a", 1}, {"/a", 2}})));
}

}  // namespace
