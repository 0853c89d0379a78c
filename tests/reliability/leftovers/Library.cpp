// Rounds at the whole library: plug-ins that come and go through list files, and starts and stops.
#include <memory>
#include <string>
#include <vector>

#include "Leftovers.h"
#include "TestPlatform.h"
#include "reliability/LoadedLibrary.h"
#include "support/ListFile.h"
#include "support/Modules.h"
#include "support/Runtime.h"

namespace vessa_test {
namespace {

class LibraryRounds {
  public:
    LibraryRounds() : library_(VESSA_FILE), folder_(library_.folder()) {
        Install(folder_, "good_v2", "tarnet/stays/stays" MODULE_SUFFIX);
        Install(folder_, "good_v1", "tarnet/comes/one" MODULE_SUFFIX);
        Install(folder_, "good_v2", "tarnet/comes/two" MODULE_SUFFIX);
        Install(folder_, "map_two", "tarnet/comes/map" MODULE_SUFFIX);
        folder_.Write("tarnet/stays/tarnet.xml",
                      ListFile()
                          .Plugin("stays", "./stays" MODULE_SUFFIX, {{"note", "kept"}})
                          .Plugin("late", "./stays" MODULE_SUFFIX, {{"delayload", "true"}})
                          .Text());
    }

    // One list comes, is changed, broken, mended, and goes.
    std::string ListRound(long number) {
        wrong_.clear();
        std::vector<void*> instances;
        Put(Coming(number % 2 == 0, "first"));
        instances.push_back(Create("one", VESSA_OK));
        if (number % 3 == 0) instances.push_back(Create("two", VESSA_OK));
        Destroy(Create("a", VESSA_OK));
        ReadAttribute("one", "note", "first");
        ListAll(5);
        Put("<vessa><plugin fkey=\"one\"");
        ReadAttribute("one", "note", "first");
        Put(Coming(number % 2 == 0, "second and longer"));
        ReadAttribute("one", "note", "second and longer");
        if (number % 4 != 0) DestroyAll(instances);
        folder_.Remove("tarnet/comes/tarnet.xml");
        runtime_->Tick();
        Create("one", VESSA_ERR_NOT_REGISTERED);
        DestroyAll(instances);
        ListAll(2);
        return wrong_;
    }

    std::string StartRound(long number) {
        wrong_.clear();
        if (number % 10 == 9) {
            FailedStart();
            return wrong_;
        }
        Expect("start", library_.Init(), VESSA_OK);
        if (number % 3 == 0) Expect("second start", library_.Init(), VESSA_OK);
        Destroy(Create("stays", VESSA_OK));
        void* const instance = Create("late", VESSA_OK);
        ListAll(2);
        if (number % 2 == 0) Destroy(instance);
        if (number % 3 == 0) library_.Uninit();
        library_.Uninit();
        Create("stays", VESSA_ERR_NOT_REGISTERED);
        if (number % 2 != 0) Destroy(instance);
        return wrong_;
    }

    void Start() {
        runtime_ = std::make_unique<Runtime>();
        wrong_.clear();
        Expect("start", library_.Init(), VESSA_OK);
        // Every stripe of the instance table gets its room.
        std::vector<void*> instances;
        for (int i = 0; i < 20000; ++i) instances.push_back(Create("stays", VESSA_OK));
        DestroyAll(instances);
    }
    void Stop() {
        library_.Uninit();
        runtime_.reset();
    }

  private:
    static std::string Coming(bool delayed, const std::string& note) {
        const std::string delay = delayed ? "true" : "false";
        return ListFile()
            .Plugin("one", "./one" MODULE_SUFFIX, {{"delayload", delay}, {"note", note}})
            .Plugin("two", "./two" MODULE_SUFFIX, {{"delayload", "true"}})
            .Plugin("map", "./map" MODULE_SUFFIX, {{"delayload", "false"}, {"loadfkeys", "true"}})
            .Text();
    }

    void Put(const std::string& text) {
        folder_.Write("coming", text);
        folder_.Rename("coming", "tarnet/comes/tarnet.xml");
        runtime_->Tick();
    }

    // No thread for the scan: the start takes everything back, and what it registered goes with
    // the next stop. A stop needs a start that succeeded.
    void FailedStart() {
        Runtime runtime;
        runtime.FailCall(Tova::Thread_Create);
        Expect("start without a thread", library_.Init(), VESSA_FAILED);
        runtime.StopFailing(Tova::Thread_Create);
        Expect("start after it", library_.Init(), VESSA_OK);
        Destroy(Create("stays", VESSA_OK));
        library_.Uninit();
    }

    void* Create(const char* key, int expected) {
        void* instance = nullptr;
        int error = 0;
        Expect(std::string("create ") + key, library_.CreateInstance(key, &instance, &error),
               expected);
        if (instance == nullptr) return nullptr;
        void* found = nullptr;
        Expect("query", library_.QueryInterface(instance, "iface", &found, &error), VESSA_OK);
        return instance;
    }
    void Destroy(void* instance) {
        Expect("destroy", library_.DestroyInstance(instance, nullptr), VESSA_OK);
    }
    void DestroyAll(std::vector<void*>& instances) {
        for (void* const instance : instances) Destroy(instance);
        instances.clear();
    }
    void ReadAttribute(const char* key, const char* name, const std::string& expected) {
        char value[64] = "";
        unsigned int length = sizeof value;
        Expect("attribute", library_.QueryConfigAttribute(key, name, value, &length), VESSA_OK);
        if (value != expected) wrong_ += std::string("attribute ") + value + "; ";
    }
    void ListAll(unsigned int expected) {
        char** keys = nullptr;
        unsigned int count = 0;
        Expect("all keys", library_.QueryAllFkeys(&keys, &count), VESSA_OK);
        Expect("number of keys", static_cast<int>(count), static_cast<int>(expected));
        Expect("give back", library_.ReleaseAllFkeys(keys, count), VESSA_OK);
    }
    void Expect(const std::string& what, int result, int expected) {
        if (result != expected)
            wrong_ +=
                what + ": " + std::to_string(result) + " for " + std::to_string(expected) + "; ";
    }

    LoadedLibrary library_;
    TempDir& folder_;
    std::unique_ptr<Runtime> runtime_;
    std::string wrong_;
};

int Main(int argc, char** argv) {
    const LeftoverOptions options = ReadOptions(argc, argv, 2);
    LibraryRounds rounds;
    rounds.Start();
    const bool lists = RunRounds("lists", options.counts[0], options.plant,
                                 [&](long number) { return rounds.ListRound(number); });
    rounds.Stop();
    if (!lists) return 1;
    const bool starts = RunRounds("starts", options.counts[1], options.plant,
                                  [&](long number) { return rounds.StartRound(number); });
    return starts ? 0 : 1;
}

}  // namespace
}  // namespace vessa_test

int main(int argc, char** argv) {
    return vessa_test::Main(argc, argv);
}
