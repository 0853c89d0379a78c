// Everything at once, with nothing in between that would put the threads in order.
#include <atomic>

#include "TestPlatform.h"
#include "skrib.h"
#include "unit/PluginWorld.h"

namespace vessa_test {
namespace {

class Silence {
  public:
    Silence() : logger_(SKRIB_GetLogger("vessa")), before_(SKRIB_GetThreshold(logger_)) {
        SKRIB_SetThreshold("vessa", SKRIB_LEVEL_OFF);
    }
    ~Silence() {
        SKRIB_SetThreshold("vessa", before_);
        SKRIB_ReleaseLogger(logger_);
    }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

  private:
    void* const logger_;
    const int before_;
};

class PluginProviderRaces : public ProviderTest {
  protected:
    static constexpr int kRounds = 200;

    // Creates, uses and destroys; a key may be unregistered meanwhile, an instance may not go.
    void Use(const std::string& fkey) {
        int error = 0;
        void* made = nullptr;
        const int created = provider.CreateInstance(fkey, made, error);
        if (created == VESSA_ERR_NOT_REGISTERED) return;
        void* found = nullptr;
        const int queried = provider.QueryInterface(made, TEST_MODULE_IKEY, found, error);
        const bool answers =
            queried == VESSA_OK && static_cast<test_interface*>(found)->Add(40, 2) == 42;
        const int destroyed = provider.DestroyInstance(made, error);
        if (created != VESSA_OK || !answers || destroyed != VESSA_OK) ++wrong;
        ++used;
    }

    std::atomic<int> wrong{0};
    std::atomic<int> used{0};
};

TEST_F(PluginProviderRaces, NeverTakeAModuleFromUnderALiveInstance) {
    const Silence silence;
    const std::string shared = Module("good_v2", "shared" MODULE_SUFFIX);
    const std::string own = Module("good_v2", "own" MODULE_SUFFIX);
    const std::pair<std::string, std::string> plugins[] = {
        {"a", shared}, {"b", shared}, {"c", own}};
    for (const auto& [fkey, path] : plugins)
        ASSERT_EQ(provider.RegisterPlugin(fkey, path, true), VESSA_OK);
    Barrier start(5);
    {
        std::vector<std::unique_ptr<JoiningThread>> threads;
        for (int worker = 0; worker < 3; ++worker) {
            threads.push_back(std::make_unique<JoiningThread>([&, worker] {
                start.ArriveAndWait();
                for (int round = 0; round < kRounds; ++round)
                    Use(plugins[(worker + round) % 3].first);
            }));
        }
        for (int changer = 0; changer < 2; ++changer) {
            threads.push_back(std::make_unique<JoiningThread>([&, changer] {
                start.ArriveAndWait();
                for (int round = 0; round < kRounds / 2; ++round) {
                    const auto& [fkey, path] = plugins[changer * 2];
                    if (provider.UnregisterPlugin(fkey) != VESSA_OK) ++wrong;
                    if (provider.RegisterPlugin(fkey, path, round % 2 == 0) != VESSA_OK) ++wrong;
                }
            }));
        }
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(used, 0);
    for (const auto& [fkey, path] : plugins) EXPECT_EQ(provider.UnregisterPlugin(fkey), VESSA_OK);
}

TEST_F(PluginProviderRaces, LoadAndUnloadOneModuleThroughManyKeys) {
    const Silence silence;
    const std::string path = Module("good_v2", "shared" MODULE_SUFFIX);
    constexpr int kThreads = 4;
    Barrier start(kThreads);
    {
        std::vector<std::unique_ptr<JoiningThread>> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.push_back(std::make_unique<JoiningThread>([&, i] {
                const std::string fkey = "key" + std::to_string(i);
                for (int round = 0; round < kRounds / 4; ++round) {
                    start.ArriveAndWait();
                    if (provider.RegisterPlugin(fkey, path, false) != VESSA_OK) ++wrong;
                    Use(fkey);
                    if (provider.UnregisterPlugin(fkey) != VESSA_OK) ++wrong;
                }
            }));
        }
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(used, kThreads * (kRounds / 4));
}

}  // namespace
}  // namespace vessa_test
