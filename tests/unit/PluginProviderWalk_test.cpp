// The registration's checks, against a plain walk over everything that is registered.
#include <atomic>
#include <random>

#include "TestPlatform.h"
#include "common/NormalizePath.h"
#include "skrib.h"
#include "support/Allocation.h"
#include "unit/PluginWorld.h"

namespace {

// Every message asks for the threshold first, also one that is not written.
std::atomic<long> threshold_reads{0};

}  // namespace

STAND_IN(int, SKRIB_GetThreshold)(void* logger) {
    static const auto real = vessa_test::FunctionBehind<int(void*)>("SKRIB_GetThreshold");
    ++threshold_reads;
    return real(logger);
}

namespace vessa_test {
namespace {

// What the registry answers and writes, said in the plainest way: no index, every entry is
// looked at in the order of its key.
class PlainRegistry {
  public:
    struct Answer {
        int result = 0;
        Lines lines;
    };

    Answer Register(const std::string& fkey, const std::string& file_path) {
        Answer answer;
        answer.lines = {"3 param fkey " + fkey + ", file_path " + file_path + ", delay_load true"};
        answer.result = Walk(fkey, file_path, answer.lines);
        if (answer.result != VESSA_OK) return answer;
        entries_[fkey] = {file_path, true};
        answer.lines.push_back("3 register plugin succeeded, fkey " + fkey + ", file path " +
                               file_path + ", delay load true");
        return answer;
    }

    void AddWithoutRecord(const std::string& fkey) { entries_[fkey] = {"", false}; }
    void Remove(const std::string& fkey) { entries_.erase(fkey); }
    bool Contains(const std::string& fkey) const { return entries_.count(fkey) != 0; }
    Lines Keys() const {
        Lines keys;
        for (const auto& entry : entries_) keys.push_back(entry.first);
        return keys;
    }

  private:
    struct Entry {
        std::string path;
        bool has_record;
    };

    int Walk(const std::string& fkey, const std::string& file_path, Lines& lines) const {
        const std::string filename = FileNameOf(NormalizePath(file_path));
        for (const auto& [key, entry] : entries_) {
            std::string path;
            std::string name;
            if (entry.has_record) {
                path = entry.path;
                name = FileNameOf(NormalizePath(path));
            } else {
                lines.push_back(
                    "4 unexpected, plugin_collection contains invalid plugin, plugin fkey " + key);
            }
            if (fkey == key) {
                if (file_path == path) continue;
                lines.push_back("5 plugin conflict, plugin fkey already exists, fkey " + fkey +
                                ", param file_path " + file_path +
                                ", registered plugin file path " + path);
                return VESSA_ERR_PLUGIN_CONFLICT;
            }
            if (file_path == path) {
                lines.push_back("4 the same plugin file path, different plugin filenames, fkey " +
                                fkey + ", registered fkey " + key + ", plugin file path " +
                                file_path);
            } else if (filename == name) {
                lines.push_back(
                    "5 plugin conflict, the same plugin filename, different plugin file paths, "
                    "fkey " +
                    fkey + ", file path " + file_path + ", registered fkey " + key +
                    ", registered plugin file path " + path);
                return VESSA_ERR_PLUGIN_CONFLICT;
            }
        }
        return VESSA_OK;
    }

    std::map<std::string, Entry> entries_;
};

class RegistrationWalk : public ProviderTest {
  protected:
    static Lines FromLevel(const Lines& lines, int level) {
        Lines kept;
        for (const std::string& line : lines) {
            if (line[0] - '0' >= level) kept.push_back(line);
        }
        return kept;
    }

    std::string Any(const std::vector<std::string>& from) {
        return from[std::uniform_int_distribution<size_t>(0, from.size() - 1)(random)];
    }

    // Registers and removes at random, few keys and files, and compares each step.
    void Compare(unsigned seed, int threshold, int without_record) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        random.seed(seed);
        const std::vector<std::string> fkeys = {"a", "a1", "aB", "ab", "b", "c", "d", "e"};
        const std::vector<std::string> paths = {"/p/x", "/q/x",  "/p//x", "/p\\x", "x",   "./x",
                                                "/p/y", "/q/y/", "y",     "/p/z",  "/p/X"};
        PlainRegistry plain;
        LogCapture log(threshold);
        for (int step = 0; step < 60; ++step) {
            const std::string fkey = Any(fkeys);
            const int dice = std::uniform_int_distribution<int>(0, 99)(random);
            if (dice < 20 && plain.Contains(fkey)) {
                plain.Remove(fkey);
                ASSERT_EQ(provider.UnregisterPlugin(fkey), VESSA_OK);
                continue;
            }
            if (dice < 20 + without_record && !plain.Contains(fkey)) {
                plain.AddWithoutRecord(fkey);
                PluginProviderAccess::AddWithoutRecord(provider, fkey);
                continue;
            }
            const std::string path = Any(paths);
            log.Clear();
            const PlainRegistry::Answer answer = plain.Register(fkey, path);
            ASSERT_EQ(provider.RegisterPlugin(fkey, path, true), answer.result) << fkey << path;
            ASSERT_EQ(log.Lines(), FromLevel(answer.lines, threshold));
        }
        for (const std::string& fkey : plain.Keys()) {
            ASSERT_EQ(provider.UnregisterPlugin(fkey), VESSA_OK);
        }
        ASSERT_TRUE(PluginProviderAccess::Collection(provider).empty());
    }

    struct Cost {
        long allocations = 0;
        long threshold_reads = 0;
    };

    // What the last hundred of that many registrations took together.
    Cost CostOf(int count, const std::function<std::string(int)>& path) {
        constexpr int kMeasured = 100;
        const auto add = [&](int i) {
            if (provider.RegisterPlugin("key" + std::to_string(i), path(i), true) != VESSA_OK)
                ADD_FAILURE() << "not registered: " << i;
        };
        for (int i = 0; i < count - kMeasured; ++i) add(i);
        Cost cost;
        threshold_reads = 0;
        {
            AllocationFailure counting(0);
            for (int i = count - kMeasured; i < count; ++i) add(i);
            cost.allocations = counting.Count();
        }
        cost.threshold_reads = threshold_reads;
        PluginProviderAccess::Clear(provider);
        return cost;
    }

    // Ten thousand may cost three times as much each as one thousand.
    void ExpectLinear(const std::function<std::string(int)>& path) {
        const Cost few = CostOf(1000, path);
        const Cost many = CostOf(10000, path);
        EXPECT_GT(few.allocations, 0);
        EXPECT_GT(few.threshold_reads, 0);
        EXPECT_LE(many.allocations, 3 * few.allocations);
        EXPECT_LE(many.threshold_reads, 3 * few.threshold_reads);
    }

    std::mt19937 random;
};

TEST_F(RegistrationWalk, AnswersAndWritesWhatAPlainWalkDoes) {
    for (unsigned seed = 1; seed <= 150 && !HasFatalFailure(); ++seed) Compare(seed, 1, 0);
}

TEST_F(RegistrationWalk, AnswersAndWritesThatAlsoWithEntriesWithoutRecord) {
    for (unsigned seed = 1; seed <= 150 && !HasFatalFailure(); ++seed) Compare(seed, 1, 10);
}

TEST_F(RegistrationWalk, AnswersAndWritesThatWhateverTheThresholdIs) {
    for (const int threshold : {3, 4, 5, 6}) {
        for (unsigned seed = 1; seed <= 50 && !HasFatalFailure(); ++seed)
            Compare(seed, threshold, 5);
    }
}

// In the order of the keys up to the first refusal, whichever of the reasons comes first.
TEST_F(RegistrationWalk, GoesByTheBytesOfTheKeysAndStopsAtTheFirstRefusal) {
    for (const char* const fkey : {"a1", "a", "aB", "ab"})
        ASSERT_EQ(provider.RegisterPlugin(fkey, "/p/x", true), VESSA_OK);
    PluginProviderAccess::AddWithoutRecord(provider, "a0");
    PluginProviderAccess::AddWithoutRecord(provider, "z");
    LogCapture log;
    const auto warned = [](const std::string& key) {
        return "4 the same plugin file path, different plugin filenames, fkey b, registered fkey " +
               key + ", plugin file path /p/x";
    };
    EXPECT_EQ(provider.RegisterPlugin("b", "/p/x", true), VESSA_OK);
    EXPECT_EQ(provider.RegisterPlugin("aa", "/q/x", true), VESSA_ERR_PLUGIN_CONFLICT);
    const std::string invalid =
        "4 unexpected, plugin_collection contains invalid plugin, plugin fkey ";
    EXPECT_TRUE(log.Is(
        Registering("b", "/p/x", true) +
        Lines{warned("a"), invalid + "a0", warned("a1"), warned("aB"), warned("ab"),
              invalid + "z"} +
        Registered("b", "/p/x", true) + Registering("aa", "/q/x", true) +
        Lines{"5 plugin conflict, the same plugin filename, different plugin file paths, fkey aa, "
              "file path /q/x, registered fkey a, registered plugin file path /p/x"}));
    PluginProviderAccess::Clear(provider);
}

// Paths too long to be kept inside a string object, so that a look at another entry's path
// allocates.
TEST_F(RegistrationWalk, CostsTheSameForEachOfTenThousandModules) {
    for (const int threshold : {1, 4}) {
        LogCapture log(threshold);
        ExpectLinear([](int i) {
            return "/a/folder/with/a/long/name/module_with_a_long_name" + std::to_string(i) +
                   MODULE_SUFFIX;
        });
    }
}

// A look at another key of the same module asks whether the warning is wanted.
TEST_F(RegistrationWalk, CostsTheSameForEachOfTenThousandKeysOfOneModuleIfNobodyReadsTheWarnings) {
    LogCapture log(5);
    ExpectLinear([](int) {
        return std::string("/a/folder/with/a/long/name/module_with_a_long_name" MODULE_SUFFIX);
    });
}

}  // namespace
}  // namespace vessa_test
