// The registry against a model of it: everything in random order on one thread, with each line
// that is logged; and on several threads, with a census at the end.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "TestPlatform.h"
#include "modules/TestInterface.h"
#include "skrib.h"
#include "support/LogCapture.h"
#include "support/ModuleHook.h"
#include "support/Modules.h"
#include "support/Runtime.h"
#include "support/TempDir.h"
#include "unit/RegistryModel.h"
#include "unit/SpinBarrier.h"
#include "vessa/vessa.h"
#include "vessa2/PluginLoader.h"
#include "vessa2/PluginProvider.h"

struct PluginLoaderAccess {
    static size_t Held(PluginLoader& loader) NO_THREAD_SAFETY_ANALYSIS {
        return loader.collection_.size();
    }
};

struct PluginProviderAccess {
    static PluginTable& Table(PluginProvider& provider) NO_THREAD_SAFETY_ANALYSIS {
        return provider.plugins_;
    }
    static size_t Instances(PluginProvider& provider) { return provider.instances_.Size(); }
    static bool HasReaders(PluginProvider& provider) { return provider.gate_.HasReaders(); }
};

namespace vessa_test {
namespace {

// Emulators are some ten times slower: small enough for them.
constexpr int kSteps = 1200;
constexpr int kRounds = 300;

class PluginProviderOracle : public testing::Test {
  protected:
    PluginProviderOracle() : loader_(PluginLoader::Instance()), before_(Runtime::Census()) {}

    // A census: nothing registered, no instance, no module, and no more of anything than before.
    void TearDown() override {
        EXPECT_TRUE(provider->IsEmpty());
        EXPECT_FALSE(PluginProviderAccess::HasReaders(*provider));
        EXPECT_EQ(PluginProviderAccess::Instances(*provider), 0u);
        EXPECT_EQ(PluginProviderAccess::Table(*provider).Records(), 0u);
        EXPECT_EQ(PluginProviderAccess::Table(*provider).FileNames(), 0u);
        EXPECT_EQ(PluginLoaderAccess::Held(loader_), 0u) << "a module is still held";
        provider.reset();
        EXPECT_EQ(Runtime::Census(), before_);
    }

    std::string Module(const std::string& module, const std::string& relative) {
        return Install(dir, module, relative + MODULE_SUFFIX);
    }

    TempDir dir;

  private:
    PluginLoader& loader_;
    const RuntimeCensus before_;

  protected:
    std::unique_ptr<PluginProvider> provider = std::make_unique<PluginProvider>();
};

// One random operation after the other on the registry and on its model.
class RandomCaller {
  public:
    RandomCaller(PluginProvider& provider, LogCapture& log, int threshold,
                 std::vector<std::string> paths, unsigned seed)
        : provider_(provider),
          log_(log),
          threshold_(threshold),
          paths_(std::move(paths)),
          random_(seed) {}

    void Step() {
        log_.Clear();
        model_.lines.clear();
        switch (random_() % 10) {
            case 0:
            case 1:
                return Register(Fkey(), paths_[random_() % paths_.size()], random_() % 2 == 0);
            case 2:
                return Unregister(Fkey());
            case 3:
                return random_() % 8 == 0 ? AddWithoutRecord(Fkey()) : Unregister(Fkey());
            case 4:
            case 5:
                return Create(Fkey());
            case 6:
            case 7:
                return Destroy(Instance());
            default:
                return Query(Instance(), Ikey());
        }
    }

    void EndEverything() {
        const std::map<void*, std::string> instances = model_.instances;
        for (const auto& [instance, fkey] : instances) {
            log_.Clear();
            model_.lines.clear();
            Destroy(instance);
        }
        const std::map<std::string, RegistryModel::Entry> entries = model_.entries;
        for (const auto& [fkey, entry] : entries) {
            log_.Clear();
            model_.lines.clear();
            Unregister(fkey);
        }
    }

    // What has happened at all, so that a test whose randomness misses something says so.
    std::set<int> results;
    int unloads_put_off = 0;

  private:
    std::string Fkey() {
        static const char* const fkeys[] = {"", "a", "b", "c", "d", "e", "B", "aa"};
        return fkeys[random_() % 8];
    }
    std::string Ikey() {
        static const char* const ikeys[] = {"", "other", TEST_MODULE_IKEY, TEST_MODULE_IKEY};
        return ikeys[random_() % 4];
    }
    // A live one, mostly; otherwise one that was, a bad one or none.
    void* Instance() {
        if (!model_.instances.empty() && random_() % 4 != 0)
            return std::next(model_.instances.begin(),
                             static_cast<long>(random_() % model_.instances.size()))
                ->first;
        if (random_() % 4 == 0) return TARNET_INVALID_HANDLE;
        return random_() % 2 == 0 || former_ == nullptr ? static_cast<void*>(this) : former_;
    }

    void Register(const std::string& fkey, const std::string& path, bool delay_load) {
        const int result = provider_.RegisterPlugin(fkey, path, delay_load);
        Compare(result, 0, nullptr, model_.Register(fkey, path, delay_load));
    }
    void Unregister(const std::string& fkey) {
        const int result = provider_.UnregisterPlugin(fkey);
        Compare(result, 0, nullptr, model_.Unregister(fkey));
    }
    void Create(const std::string& fkey) {
        void* made = this;
        int error = 99;
        const int result = provider_.CreateInstance(fkey, made, error);
        Compare(result, error, made, model_.Create(fkey, made));
    }
    void Destroy(void* instance) {
        int error = 99;
        const size_t before = model_.entries.size();
        const int result = provider_.DestroyInstance(instance, error);
        Compare(result, error, nullptr, model_.Destroy(instance));
        unloads_put_off += model_.entries.size() < before;
        former_ = instance;
    }
    void Query(void* instance, const std::string& ikey) {
        void* found = this;
        int error = 99;
        const int result = provider_.QueryInterface(instance, ikey, found, error);
        Compare(result, error, found, model_.Query(instance, ikey, found));
    }
    void AddWithoutRecord(const std::string& fkey) {
        if (fkey.empty() || model_.entries.count(fkey) != 0) return;
        PluginProviderAccess::Table(provider_).AddWithoutRecord(fkey);
        model_.entries[fkey].has_record = false;
    }

    void Compare(int result, int error, void* value, const RegistryModel::Outcome& expected) {
        results.insert(result);
        ASSERT_EQ(result, expected.result);
        ASSERT_EQ(error, expected.plugin_error);
        ASSERT_EQ(value, expected.value);
        std::vector<std::string> shown;
        for (const std::string& line : model_.lines)
            if (line[0] - '0' >= threshold_) shown.push_back(line);
        ASSERT_TRUE(LinesAre(RegistryLines(), shown));
        ASSERT_EQ(PluginProviderAccess::Instances(provider_), model_.instances.size());
    }

    // What the loader and the modules log in between is their tests' business.
    std::vector<std::string> RegistryLines() const {
        std::vector<std::string> lines;
        for (const LogRecord& record : log_.Records()) {
            if (record.file.find("PluginProvider.cpp") != std::string::npos ||
                record.file.find("PluginInstances.cpp") != std::string::npos ||
                record.file.find("DelayLoadPlugin.cpp") != std::string::npos)
                lines.push_back(record.Line());
        }
        return lines;
    }

    PluginProvider& provider_;
    LogCapture& log_;
    const int threshold_;
    const std::vector<std::string> paths_;
    std::mt19937 random_;
    RegistryModel model_;
    void* former_ = nullptr;
};

TEST_F(PluginProviderOracle, DoesAndLogsWhatTheModelDoesAtEachThreshold) {
    const std::vector<std::string> paths = {Module("good_v2", "x"),
                                            Module("good_v2", "x"),
                                            Module("good_v2", "other/x"),
                                            Module("good_v2", "y"),
                                            Module("same_instance", "same_instance"),
                                            Module("same_instance", "same_instance"),
                                            Module("create_fails", "create_fails"),
                                            dir.Path("missing" MODULE_SUFFIX),
                                            "",
                                            "/"};
    const std::set<int> all = {VESSA_OK,
                               VESSA_FAILED,
                               VESSA_ERR_ARGUMENT,
                               VESSA_ERR_NO_MODULE_FILE,
                               VESSA_ERR_NOT_REGISTERED,
                               VESSA_ERR_PLUGIN_CONFLICT,
                               VESSA_ERR_INSTANCE_CONFLICT};
    for (int threshold = 1; threshold <= 6; ++threshold) {
        LogCapture log(threshold);
        RandomCaller caller(*provider, log, threshold, paths, static_cast<unsigned>(threshold));
        for (int step = 0; step < kSteps; ++step) {
            caller.Step();
            ASSERT_FALSE(HasFatalFailure()) << "step " << step << ", threshold " << threshold;
        }
        caller.EndEverything();
        ASSERT_FALSE(HasFatalFailure()) << "at the end, threshold " << threshold;
        EXPECT_EQ(caller.results, all);
        EXPECT_GT(caller.unloads_put_off, 3);
        EXPECT_TRUE(provider->IsEmpty());
    }
}

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

// Several threads on one registry, without anything that would put them in order but the pool in
// which they leave instances for each other.
class PluginProviderOracleThreads : public PluginProviderOracle {
  protected:
    void SetUp() override {
        const std::string shared = Module("good_v2", "shared");
        plugins = {{"a", shared}, {"b", shared}, {"c", Module("good_v2", "own")}};
    }

    void Leave(void* instance) {
        const std::lock_guard<std::mutex> lock(mutex);
        pool.push_back(instance);
    }
    void* Fetch(unsigned which) {
        const std::lock_guard<std::mutex> lock(mutex);
        if (pool.empty()) return nullptr;
        std::swap(pool[which % pool.size()], pool.back());
        void* const instance = pool.back();
        pool.pop_back();
        return instance;
    }

    void Create(const std::string& fkey) {
        void* made = nullptr;
        int error = 0;
        const int result = provider->CreateInstance(fkey, made, error);
        wrong += (made != nullptr) != (result == VESSA_OK);
        wrong += result != VESSA_OK && result != VESSA_ERR_NOT_REGISTERED;
        if (made != nullptr) Leave(made);
        created += made != nullptr;
    }
    void Query(void* instance) {
        void* found = nullptr;
        int error = 0;
        wrong += provider->QueryInterface(instance, TEST_MODULE_IKEY, found, error) != VESSA_OK;
        wrong += found == nullptr || static_cast<test_interface*>(found)->Add(40, 2) != 42;
    }
    void Destroy(void* instance) {
        int error = 0;
        wrong += provider->DestroyInstance(instance, error) != VESSA_OK;
        ++destroyed;
    }

    void Use(unsigned seed) {
        std::mt19937 random(seed);
        for (int round = 0; round < 20 * kRounds; ++round) {
            if (random() % 2 == 0) Create(plugins[random() % plugins.size()].first);
            void* const instance = Fetch(static_cast<unsigned>(random()));
            if (instance == nullptr) continue;
            Query(instance);
            if (random() % 2 == 0)
                Destroy(instance);
            else
                Leave(instance);
        }
    }

    void Change(unsigned seed, const std::vector<size_t>& which) {
        std::mt19937 random(seed);
        for (int round = 0; round < kRounds; ++round) {
            const auto& [fkey, path] = plugins[which[random() % which.size()]];
            wrong += provider->RegisterPlugin(fkey, path, random() % 2 == 0) != VESSA_OK;
            wrong += provider->UnregisterPlugin(fkey) != VESSA_OK;
        }
    }

    void EndEverything() {
        while (void* const instance = Fetch(0)) Destroy(instance);
        for (const auto& [fkey, path] : plugins) {
            const int result = provider->UnregisterPlugin(fkey);
            EXPECT_TRUE(result == VESSA_OK || result == VESSA_ERR_ARGUMENT) << result;
        }
    }

    std::vector<std::pair<std::string, std::string>> plugins;
    std::mutex mutex;
    std::vector<void*> pool;
    std::atomic<int> wrong{0};
    std::atomic<int> created{0};
    std::atomic<int> destroyed{0};
};

TEST_F(PluginProviderOracleThreads, KeepEveryInstanceAliveAndLeaveNothingBehind) {
    const Silence silence;
    for (const auto& [fkey, path] : plugins)
        ASSERT_EQ(provider->RegisterPlugin(fkey, path, true), VESSA_OK);
    RunTogether({[&] { Use(1); }, [&] { Use(2); }, [&] { Use(3); }, [&] { Use(4); },
                 [&] {
                     Change(5, {0, 2});
                 }});
    EndEverything();
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(created, 0);
    EXPECT_EQ(created, destroyed);
}

// The last instance of an unregistered plug-in, which two threads destroy: the one that comes too
// late looks at nothing that is gone.
TEST_F(PluginProviderOracleThreads, DestroyEachLastInstanceOnceAndItsRecordWithIt) {
    const Silence silence;
    const auto& [fkey, path] = plugins[2];
    constexpr int kThreads = 3;
    SpinBarrier barrier(kThreads);
    void* last = nullptr;
    std::atomic<int> wins{0};
    const auto destroy = [&] {
        int error = 0;
        const int result = provider->DestroyInstance(last, error);
        wins += result == VESSA_OK;
        wrong += result != VESSA_OK && result != VESSA_ERR_ARGUMENT;
    };
    const auto compete = [&, &fkey = fkey, &path = path](bool prepares) {
        for (int round = 0; round < kRounds; ++round) {
            int error = 0;
            if (prepares) {
                wrong += provider->RegisterPlugin(fkey, path, true) != VESSA_OK;
                wrong += provider->CreateInstance(fkey, last, error) != VESSA_OK;
                wrong += provider->UnregisterPlugin(fkey) != VESSA_OK;
            }
            barrier.ArriveAndWait();
            destroy();
            barrier.ArriveAndWait();
            if (prepares) wrong += !provider->IsEmpty();
        }
    };
    RunTogether({[&] { compete(true); }, [&] { compete(false); }, [&] { compete(false); }});
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(wins, kRounds);
}

// A query that is on its way when the instance and its record go. The module stays for another
// plug-in, and an unknown ikey is refused without a look at the instance: what is left to go wrong
// is the registry's.
TEST_F(PluginProviderOracleThreads, QueryARecordThatGoesMeanwhileWithoutHarm) {
    const Silence silence;
    const auto& [fkey, path] = plugins[0];
    ASSERT_EQ(provider->RegisterPlugin("b", path, false), VESSA_OK);
    std::atomic<void*> shown{this};
    std::atomic<bool> done{false};
    const auto query = [&] {
        do {
            void* found = nullptr;
            int error = 0;
            const int result = provider->QueryInterface(shown, "unknown", found, error);
            // Also without its module: another thread has unloaded it in between.
            wrong += result != VESSA_ERR_ARGUMENT && result != VESSA_FAILED;
        } while (!done);
    };
    RunTogether({query, query, [&, &fkey = fkey, &path = path] {
                     for (int round = 0; round < 10 * kRounds; ++round) {
                         void* made = nullptr;
                         int error = 0;
                         wrong += provider->RegisterPlugin(fkey, path, true) != VESSA_OK;
                         wrong += provider->CreateInstance(fkey, made, error) != VESSA_OK;
                         shown = made;
                         wrong += provider->UnregisterPlugin(fkey) != VESSA_OK;
                         wrong += provider->DestroyInstance(made, error) != VESSA_OK;
                     }
                     done = true;
                 }});
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(provider->UnregisterPlugin("b"), VESSA_OK);
}

// The same from inside a module, where the thread's place guards another record already.
TEST_F(PluginProviderOracleThreads, QueryARecordThatGoesMeanwhileFromInsideAQuery) {
    const Silence silence;
    const auto& [fkey, path] = plugins[0];
    ASSERT_EQ(provider->RegisterPlugin("b", path, false), VESSA_OK);
    ASSERT_EQ(provider->RegisterPlugin("c", plugins[2].second, false), VESSA_OK);
    void* outer = nullptr;
    int outer_error = 0;
    ASSERT_EQ(provider->CreateInstance("c", outer, outer_error), VESSA_OK);
    std::atomic<void*> shown{this};
    std::atomic<bool> done{false};
    ModuleHook hook;
    hook.On("own", "QueryInterface", [&](ModuleCall&) {
        for (int i = 0; i < 10; ++i) {
            void* found = nullptr;
            int error = 0;
            const int result = provider->QueryInterface(shown, "unknown", found, error);
            wrong += result != VESSA_ERR_ARGUMENT && result != VESSA_FAILED;
        }
    });
    RunTogether({[&] {
                     do {
                         void* found = nullptr;
                         int error = 0;
                         wrong += provider->QueryInterface(outer, TEST_MODULE_IKEY, found, error) !=
                                  VESSA_OK;
                     } while (!done);
                 },
                 [&, &fkey = fkey, &path = path] {
                     for (int round = 0; round < 5 * kRounds; ++round) {
                         void* made = nullptr;
                         int error = 0;
                         wrong += provider->RegisterPlugin(fkey, path, true) != VESSA_OK;
                         wrong += provider->CreateInstance(fkey, made, error) != VESSA_OK;
                         shown = made;
                         wrong += provider->UnregisterPlugin(fkey) != VESSA_OK;
                         wrong += provider->DestroyInstance(made, error) != VESSA_OK;
                     }
                     done = true;
                 }});
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(provider->DestroyInstance(outer, outer_error), VESSA_OK);
    EXPECT_EQ(provider->UnregisterPlugin("b"), VESSA_OK);
    EXPECT_EQ(provider->UnregisterPlugin("c"), VESSA_OK);
}

// A module destroys the instance that is being queried and has its plug-in unregistered; the query
// still has things to say of it. Mutexes are what tells whether a record that was loaded is there.
class PluginProviderOracleRecords : public PluginProviderOracle {
  protected:
    void SetUp() override {
        path = Module("good_v2", "shared");
        // Keeps the module while the record goes.
        ASSERT_EQ(provider->RegisterPlugin("keeper", path, false), VESSA_OK);
        ASSERT_EQ(provider->RegisterPlugin(fkey, path, true), VESSA_OK);
        ASSERT_EQ(provider->CreateInstance(fkey, instance, error), VESSA_OK);
        hook.On("shared", "QueryInterface", [&](ModuleCall& call) {
            const long mutexes = Runtime::Census().mutexes;
            int own_error = 0;
            EXPECT_EQ(provider->DestroyInstance(instance, own_error), VESSA_OK);
            EXPECT_EQ(provider->UnregisterPlugin(fkey), VESSA_OK);
            EXPECT_EQ(Runtime::Census().mutexes, mutexes);
            call.Return(TEST_MODULE_ERR_QUERY);
        });
    }
    void TearDown() override {
        EXPECT_EQ(provider->UnregisterPlugin("keeper"), VESSA_OK);
        PluginProviderOracle::TearDown();
    }

    void QueryAndSeeTheRecordGoAfterwards() {
        const long mutexes = Runtime::Census().mutexes;
        const LogCapture log(5);
        void* found = nullptr;
        EXPECT_EQ(provider->QueryInterface(instance, "i", found, error), VESSA_FAILED);
        EXPECT_EQ(error, TEST_MODULE_ERR_QUERY);
        const std::string failed = "5 query plugin interface failed ";
        EXPECT_TRUE(
            log.Is({failed + Code(TEST_MODULE_ERR_QUERY) +
                        ", instance {*i}, ikey i, plugin {*p}, plugin file path " + path,
                    failed + Code(VESSA_FAILED) + ", plugin_error " + Code(TEST_MODULE_ERR_QUERY) +
                        ", instance {*i}, ikey i, fkey " + fkey + ", plugin file path " + path}));
        EXPECT_LT(Runtime::Census().mutexes, mutexes);
    }

    // Too long to stand in the record itself.
    const std::string fkey = "com.example.a.key.of.more.than.a.few.letters";
    std::string path;
    void* instance = nullptr;
    int error = 0;
    ModuleHook hook;
};

TEST_F(PluginProviderOracleRecords, StayUntilTheQueryEndsInWhichTheyWereUnregistered) {
    QueryAndSeeTheRecordGoAfterwards();
}

TEST_F(PluginProviderOracleRecords, StayUntilANestedQueryEndsInWhichTheyWereUnregistered) {
    ASSERT_EQ(provider->RegisterPlugin("outer", Module("good_v2", "own"), false), VESSA_OK);
    void* outer = nullptr;
    ASSERT_EQ(provider->CreateInstance("outer", outer, error), VESSA_OK);
    hook.On("own", "QueryInterface", [&](ModuleCall&) { QueryAndSeeTheRecordGoAfterwards(); });
    void* found = nullptr;
    int outer_error = 0;
    EXPECT_EQ(provider->QueryInterface(outer, TEST_MODULE_IKEY, found, outer_error), VESSA_OK);
    EXPECT_EQ(provider->DestroyInstance(outer, outer_error), VESSA_OK);
    EXPECT_EQ(provider->UnregisterPlugin("outer"), VESSA_OK);
}

}  // namespace
}  // namespace vessa_test
