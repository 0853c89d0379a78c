// Change rounds in which memory runs out at each point in turn. What a round could not do for a
// declared plug-in the next one does; announced fkeys come and go with the next registration of
// theirs. Nothing is left half done, and the stop takes everything back.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "TestPlatform.h"
#include "support/Allocation.h"
#include "support/ListFile.h"
#include "support/LogCapture.h"
#include "support/Modules.h"
#include "support/Runtime.h"
#include "support/TempDir.h"
#include "vessa2/PluginCoordinator.h"

struct PluginCoordinatorAccess {
    // Whether the keys that are not registered are exactly those that are to be tried.
    static bool IsConsistent(PluginCoordinator& coordinator) NO_THREAD_SAFETY_ANALYSIS {
        size_t pending = 0;
        for (const auto& record : coordinator.registered_.records_)
            pending += record.state == RegistrationTable::Record::kPending;
        return pending == coordinator.registered_.pending() && coordinator.registered_.gaps_ == 0;
    }
    // What a round had no memory to enter.
    static size_t LeftOver(PluginCoordinator& coordinator) NO_THREAD_SAFETY_ANALYSIS {
        return coordinator.not_entered_.size();
    }
    static std::vector<std::string> Registered(PluginCoordinator& coordinator)
        NO_THREAD_SAFETY_ANALYSIS {
        std::vector<std::string> fkeys;
        for (const auto& record : coordinator.registered_.records_) {
            if (record.state == RegistrationTable::Record::kRegistered)
                fkeys.push_back(record.item.fkey());
        }
        return fkeys;
    }
};

namespace {

using vessa_test::AllocationFailure;
using vessa_test::Install;
using vessa_test::ListFile;
using vessa_test::LiveBlocks;
using vessa_test::LogCapture;
using vessa_test::Runtime;
using vessa_test::TempDir;
using Strings = std::vector<std::string>;
using Changes = std::list<ConfigMonitor::NotifyInfo>;

// From where to where the allocations of a round are counted. The parser's own stand between
// two of these: it loses memory when it runs out of it.
struct Stretch {
    const char* from;  // a line of the log, or null for the round's begin
    const char* to;    // or null for its end
};
constexpr Stretch kUpToTheText = {nullptr, "2 param xml = "};
constexpr Stretch kAfterTheText = {"2 read plugin list succeeded", nullptr};
constexpr Stretch kWhole = {nullptr, nullptr};

class World {
  public:
    World() {
        coordinator_.SetPluginRoot(dir_.MakeFolder("root"));
        coordinator_.SetConfigFilename("tarnet.xml");
        for (const char* const name : {"one", "two", "map_two"})
            Install(dir_, name == std::string("map_two") ? name : "good_v2",
                    std::string(name) + MODULE_SUFFIX);
        list_ = dir_.Path("list.xml");
        EXPECT_TRUE(coordinator_.Run());
    }
    ~World() {
        EXPECT_TRUE(coordinator_.Shutdown());
        EXPECT_TRUE(coordinator_.provider().IsEmpty());
    }
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    void Write(const ListFile& list) { dir_.Write("list.xml", list.Text()); }
    // The same of a second file.
    void ReportOther(int32_t type, const ListFile& list) {
        coordinator_.ConfigFileChanged(monitor_, {{dir_.Write("other.xml", list.Text()), type}});
    }
    void Report(int32_t type) { coordinator_.ConfigFileChanged(monitor_, {{list_, type}}); }

    // The same with the nth allocation of the stretch failing; false if there were not so many.
    bool ReportFailing(int32_t type, long nth, const Stretch& stretch) {
        const Changes changes = {{list_, type}};
        std::optional<AllocationFailure> failure;
        bool failed = false;
        const auto end = [&] {
            if (failure) failed = failure->Failed() != 0;
            failure.reset();
        };
        log_.Clear();
        if (stretch.from != nullptr)
            log_.OnLine(stretch.from, [&] {
                if (!done_) failure.emplace(nth);
            });
        if (stretch.to != nullptr)
            log_.OnLine(stretch.to, [&] {
                if (!done_) end();
            });
        if (stretch.from == nullptr) failure.emplace(nth);
        coordinator_.ConfigFileChanged(monitor_, changes);
        end();
        done_ = true;
        EXPECT_TRUE(PluginCoordinatorAccess::IsConsistent(coordinator_)) << nth;
        return failed;
    }

    // Of the fkeys that lists declare, and of those that the module announces, exactly these
    // are served.
    void ExpectDeclared(const Strings& served, long nth) { Expect({"x", "y", "p"}, served, nth); }
    void ExpectAnnounced(const Strings& served, long nth) { Expect({"a", "b"}, served, nth); }

    // The file goes and comes again: by then everything has healed.
    void ExpectHealed(const Strings& declared, long nth) {
        Report(ConfigMonitor::kDeleted);
        Report(ConfigMonitor::kAdded);
        ExpectDeclared(declared, nth);
        ExpectAnnounced({"a", "b"}, nth);
        Report(ConfigMonitor::kDeleted);
        ExpectDeclared({}, nth);
        ExpectAnnounced({}, nth);
    }

    // What the coordinator holds for registered is served.
    void ExpectNothingHalfDone(long nth) {
        const Strings registered = PluginCoordinatorAccess::Registered(coordinator_);
        Expect(registered, registered, nth);
    }

    Strings Configured() {
        Strings fkeys;
        coordinator_.GetAllFkeys(fkeys);
        return fkeys;
    }
    size_t LeftOver() { return PluginCoordinatorAccess::LeftOver(coordinator_); }
    const LogCapture& log() const { return log_; }

  private:
    void Expect(const Strings& fkeys, const Strings& served, long nth) {
        EXPECT_TRUE(PluginCoordinatorAccess::IsConsistent(coordinator_)) << nth;
        for (const std::string& fkey : fkeys) {
            void* instance = nullptr;
            int plugin_error = 0;
            const int code = coordinator_.provider().CreateInstance(fkey, instance, plugin_error);
            const bool expected = std::count(served.begin(), served.end(), fkey) != 0;
            EXPECT_EQ(code, expected ? 0 : -2147483645)
                << fkey << " when allocation " << nth << " failed";
            if (code == 0) {
                EXPECT_EQ(coordinator_.provider().DestroyInstance(instance, plugin_error), 0);
            }
        }
    }

    bool done_ = false;
    TempDir dir_;
    Runtime runtime_;
    LogCapture log_;
    ConfigMonitor monitor_;
    PluginCoordinator coordinator_;
    std::string list_;
};

ListFile First() {
    return ListFile()
        .Plugin("p", "./map_two" MODULE_SUFFIX, {{"loadfkeys", "true"}})
        .Plugin("x", "./one" MODULE_SUFFIX, {{"delayload", "true"}});
}

ListFile Second() {
    return ListFile()
        .Plugin("p", "./map_two" MODULE_SUFFIX, {{"loadfkeys", "true"}})
        .Plugin("y", "./two" MODULE_SUFFIX, {{"delayload", "true"}});
}

// Runs the round with every allocation failing in turn, and gives how many there were. Each
// time it ends with as much memory and as many objects of the runtime as it began with.
long ForEachAllocation(const std::function<bool(World&, long)>& round) {
    {
        // What the process makes once and keeps.
        World warm_up;
        round(warm_up, 0);
    }
    for (long nth = 1;; ++nth) {
        const auto before = Runtime::Census();
        const long blocks = LiveBlocks();
        bool failed = false;
        {
            World world;
            failed = round(world, nth);
        }
        EXPECT_EQ(Runtime::Census(), before) << nth;
        EXPECT_EQ(LiveBlocks(), blocks) << nth;
        if (!failed || testing::Test::HasFailure()) return nth;
    }
}

TEST(ConfigChangesMemory, AFileThatCouldNotBeReadIsReadByTheNextRound) {
    const long allocations = ForEachAllocation([](World& world, long nth) {
        world.Write(First());
        const bool failed = world.ReportFailing(ConfigMonitor::kAdded, nth, kUpToTheText);
        world.ExpectNothingHalfDone(nth);
        if (world.Configured().empty()) {
            EXPECT_EQ(world.log().Count("4 read plugin list config failed, ignored, file path "),
                      1);
            world.ExpectDeclared({}, nth);
        }
        world.Report(ConfigMonitor::kChanged);
        EXPECT_EQ(world.Configured(), (Strings{"p", "x"}));
        world.ExpectDeclared({"p", "x"}, nth);
        world.ExpectAnnounced({"a", "b"}, nth);
        world.ExpectHealed({"p", "x"}, nth);
        return failed;
    });
    EXPECT_GT(allocations, 3);
}

TEST(ConfigChangesMemory, APluginThatCouldNotBeRegisteredIsRegisteredByTheNextRound) {
    const long allocations = ForEachAllocation([](World& world, long nth) {
        world.Write(First());
        const bool failed = world.ReportFailing(ConfigMonitor::kAdded, nth, kAfterTheText);
        world.ExpectNothingHalfDone(nth);
        world.Report(ConfigMonitor::kChanged);
        EXPECT_EQ(world.Configured(), (Strings{"p", "x"}));
        world.ExpectDeclared({"p", "x"}, nth);
        world.ExpectHealed({"p", "x"}, nth);
        return failed;
    });
    EXPECT_GT(allocations, 30);
}

TEST(ConfigChangesMemory, AChangedFileIsAppliedByTheNextRound) {
    const long allocations = ForEachAllocation([](World& world, long nth) {
        world.Write(First());
        world.Report(ConfigMonitor::kAdded);
        world.Write(Second());
        const bool failed = world.ReportFailing(ConfigMonitor::kChanged, nth, kAfterTheText);
        world.ExpectNothingHalfDone(nth);
        world.Report(ConfigMonitor::kChanged);
        EXPECT_EQ(world.Configured(), (Strings{"p", "y"}));
        world.ExpectDeclared({"p", "y"}, nth);
        world.ExpectHealed({"p", "y"}, nth);
        return failed;
    });
    EXPECT_GT(allocations, 10);
}

TEST(ConfigChangesMemory, ADeletedFileIsTakenOutByTheNextRound) {
    const long allocations = ForEachAllocation([](World& world, long nth) {
        world.Write(First());
        world.Report(ConfigMonitor::kAdded);
        const bool failed = world.ReportFailing(ConfigMonitor::kDeleted, nth, kWhole);
        world.ExpectNothingHalfDone(nth);
        world.Report(ConfigMonitor::kDeleted);
        EXPECT_EQ(world.Configured(), Strings{});
        world.ExpectDeclared({}, nth);
        world.ExpectHealed({"p", "x"}, nth);
        return failed;
    });
    EXPECT_GT(allocations, 10);
}

// The file changes again before what it had declared could be entered: what it does not declare
// any more is forgotten, and the rest is entered together with what it declares now.
TEST(ConfigChangesMemory, WhatCouldNotBeEnteredIsEnteredWithTheNextChangeUnlessItIsGoneByThen) {
    int rounds_with_left_overs = 0;
    ForEachAllocation([&](World& world, long nth) {
        world.Write(First());
        const bool failed = world.ReportFailing(ConfigMonitor::kAdded, nth, kAfterTheText);
        if (world.LeftOver() != 0) ++rounds_with_left_overs;
        world.Write(Second());
        world.Report(ConfigMonitor::kChanged);
        EXPECT_EQ(world.LeftOver(), 0u);
        EXPECT_EQ(world.Configured(), (Strings{"p", "y"}));
        world.ExpectDeclared({"p", "y"}, nth);
        world.ExpectHealed({"p", "y"}, nth);
        return failed;
    });
    EXPECT_GT(rounds_with_left_overs, 0);
}

// A key that goes from one file is not forgotten for another file that declares it too.
TEST(ConfigChangesMemory, WhatAnotherFileStopsDeclaringIsEnteredAllTheSame) {
    int rounds_with_left_overs = 0;
    ForEachAllocation([&](World& world, long nth) {
        const ListFile other =
            ListFile().Plugin("x", "./one" MODULE_SUFFIX, {{"delayload", "true"}});
        world.ReportOther(ConfigMonitor::kAdded, other);
        world.Write(First());
        const bool failed = world.ReportFailing(ConfigMonitor::kAdded, nth, kAfterTheText);
        if (world.LeftOver() != 0) {
            ++rounds_with_left_overs;
            world.ReportOther(ConfigMonitor::kChanged, ListFile());
            EXPECT_EQ(world.LeftOver(), 0u);
            world.ExpectDeclared({"p", "x"}, nth);
        }
        return failed;
    });
    EXPECT_GT(rounds_with_left_overs, 0);
}

// The world's end looks at what is left.
TEST(ConfigChangesMemory, TheStopTakesBackWhatAFailingRoundDid) {
    const long allocations = ForEachAllocation([](World& world, long nth) {
        world.Write(First());
        return world.ReportFailing(ConfigMonitor::kAdded, nth, kAfterTheText);
    });
    EXPECT_GT(allocations, 30);
}

}  // namespace
