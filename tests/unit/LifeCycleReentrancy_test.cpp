// Every export from inside every kind of plug-in call, with and without a thread that waits to
// write to the registry: each comes back with its documented result.
#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TestPlatform.h"
#include "common/ThreadScope.h"
#include "unit/LifeCycleSlots.h"

namespace vessa_test {
namespace {

class EveryExportInEverySlot : public SlotTest {
  protected:
    // A plug-in that is registered while the slot is entered.
    std::string Other() const { return Is(Reached::kStop) ? "z_last" : "0_first"; }

    void CallEveryExport() {
        const bool started = !Is(Reached::kStop);
        EXPECT_EQ(VESSA_Init(), started ? VESSA_OK : VESSA_FAILED);

        void* other = nullptr;
        int error = 99;
        EXPECT_EQ(VESSA_CreateInstance(Other().c_str(), &other, &error), VESSA_OK);
        EXPECT_NE(other, nullptr);
        EXPECT_EQ(error, 0);
        void* interface = nullptr;
        error = 99;
        EXPECT_EQ(VESSA_QueryInterface(other, "iface", &interface, &error), VESSA_OK);
        EXPECT_NE(interface, nullptr);
        EXPECT_EQ(error, 0);
        error = 99;
        EXPECT_EQ(VESSA_DestroyInstance(other, &error), VESSA_OK);
        EXPECT_EQ(error, 0);
        EXPECT_EQ(VESSA_DestroyInstance(other, nullptr), VESSA_ERR_ARGUMENT);
        EXPECT_EQ(VESSA_CreateInstance("nobody", &other, nullptr), VESSA_ERR_NOT_REGISTERED);
        EXPECT_EQ(other, nullptr);
        QueryConfiguration();

        if (started) VESSA_Uninit();
        ++rounds;
    }

    void QueryConfiguration() {
        char value[256] = "";
        unsigned int length = sizeof value;
        EXPECT_EQ(VESSA_QueryConfigAttribute(Other().c_str(), "file", value, &length), VESSA_OK);
        EXPECT_EQ(std::string(value), "./" + Other() + MODULE_SUFFIX);
        char** fkeys = nullptr;
        unsigned int count = 0;
        EXPECT_EQ(VESSA_QueryAllFkeys(&fkeys, &count), VESSA_OK);
        EXPECT_GE(count, 3u);
        EXPECT_EQ(VESSA_ReleaseAllFkeys(fkeys, count), VESSA_OK);
    }

    // Lets a thread wait to write until Enter has come back. A slot that does not read the
    // registry itself gets a reader on a third thread, for which the writer waits.
    void StartWriter() {
        runtime.Before(Tova::SemTimedWait, [this](RuntimeCall&) {
            if (std::this_thread::get_id() == writer_id_.load()) writer_waits_.Open();
        });
        if (ThreadScope::Current()->holds == nullptr) {
            hook.On("hold", "CreateInstance_V2", [this](ModuleCall&) {
                reader_inside_.Open();
                reader_released_.Wait();
            });
            reader_ = std::make_unique<JoiningThread>([] { Destroy(Create("hold")); });
            reader_inside_.Wait();
        }
        writer_ = std::make_unique<JoiningThread>([this] {
            writer_id_ = std::this_thread::get_id();
            EXPECT_EQ(LifeCycle::Get()->provider().RegisterPlugin("writer",
                                                                  "/nowhere/w" MODULE_SUFFIX, true),
                      VESSA_OK);
        });
        writer_waits_.Wait();
    }
    void FinishWriter() {
        writer_->Join();
        if (reader_) reader_->Join();
        runtime.Before(Tova::SemTimedWait, nullptr);
        EXPECT_EQ(LifeCycle::Get()->provider().UnregisterPlugin("writer"), VESSA_OK);
    }

    int rounds = 0;
    Gate reader_inside_;
    Gate reader_released_;
    Gate writer_waits_;
    std::atomic<std::thread::id> writer_id_{};
    std::unique_ptr<JoiningThread> reader_;
    std::unique_ptr<JoiningThread> writer_;
};

TEST_P(EveryExportInEverySlot, ComesBack) {
    Prepare([this] { CallEveryExport(); });
    EXPECT_TRUE(Enter());
    EXPECT_EQ(rounds, 1);
    FinishStarted();
}

TEST_P(EveryExportInEverySlot, ComesBackWhileAWriterWaits) {
    Prepare([this] {
        StartWriter();
        CallEveryExport();
        EXPECT_FALSE(writer_->HasEnded());
        reader_released_.Open();
    });
    EXPECT_TRUE(Enter());
    EXPECT_EQ(rounds, 1);
    FinishWriter();
    FinishStarted();
}

// Not where the instances' own lock is held: a module must not wait there for its own thread.
class EveryExportOnAThreadOfTheModule : public EveryExportInEverySlot {};

std::vector<Slot> SlotsThatMayWait() {
    std::vector<Slot> slots = AllSlots();
    slots.erase(
        std::remove_if(slots.begin(), slots.end(),
                       [](const Slot& slot) { return slot.reached == Slot::Reached::kConflict; }),
        slots.end());
    return slots;
}

TEST_P(EveryExportOnAThreadOfTheModule, ComesBackWhileAWriterWaits) {
    // The module's own thread is outside of every library frame: VESSA_Init and VESSA_Uninit
    // would wait there for the start or stop that waits for the module.
    Prepare([this] {
        StartWriter();
        JoiningThread worker([this] {
            void* const other = Create(Other());
            void* interface = nullptr;
            EXPECT_EQ(VESSA_QueryInterface(other, "iface", &interface, nullptr), VESSA_OK);
            QueryConfiguration();
            Destroy(other);
            ++rounds;
        });
        worker.Join();
        reader_released_.Open();
    });
    EXPECT_TRUE(Enter());
    EXPECT_EQ(rounds, 1);
    FinishWriter();
    FinishStarted();
}

INSTANTIATE_TEST_SUITE_P(Slots, EveryExportInEverySlot, testing::ValuesIn(AllSlots()),
                         [](const auto& slot) { return slot.param.Name(); });
INSTANTIATE_TEST_SUITE_P(Slots, EveryExportOnAThreadOfTheModule,
                         testing::ValuesIn(SlotsThatMayWait()),
                         [](const auto& slot) { return slot.param.Name(); });

}  // namespace
}  // namespace vessa_test
