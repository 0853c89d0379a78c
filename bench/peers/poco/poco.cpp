// POCO ClassLoader, with the instances tracked by it, as ours are, and without. The tracking has no
// lock of its own.
#include <Poco/ClassLoader.h>
#include <Poco/Logger.h>

#include "common/CreateRows.h"
#include "common/LoadRow.h"
#include "common/LogRow.h"
#include "common/MemoryRow.h"
#include "peers/PeerModule.h"

namespace bench {
namespace {

class Loaded {
  public:
    explicit Loaded(size_t keys) : keys_(Keys(keys)) {
        SetKeysOfModule(keys);
        loader_.loadLibrary(BENCH_PEER_MODULE);
    }
    ~Loaded() { loader_.unloadLibrary(BENCH_PEER_MODULE); }

  protected:
    Poco::ClassLoader<Codec> loader_;
    std::vector<std::string> keys_;
};

class Tracked : public Loaded {
  public:
    using Loaded::Loaded;
    void* Create(size_t key) {
        const auto& made_by = loader_.classFor(keys_[key]);
        return made_by.autoDelete(made_by.create());
    }
    void Destroy(size_t key, void* instance) {
        loader_.destroy(keys_[key], static_cast<Codec*>(instance));
    }
};

class Untracked : public Loaded {
  public:
    using Loaded::Loaded;
    void* Create(size_t key) { return loader_.create(keys_[key]); }
    void Destroy(size_t, void* instance) { delete static_cast<Codec*>(instance); }
};

class LoadHost {
  public:
    explicit LoadHost(const std::vector<std::string>& files) : files_(files) { SetKeysOfModule(1); }
    bool FirstUse(size_t index) {
        loader_.loadLibrary(files_[index]);
        return loader_.create(key_) != nullptr;
    }
    static std::string Module() { return BENCH_PEER_MODULE; }
    static const char* Symbol() { return "pocoBuildManifest"; }

  private:
    Poco::ClassLoader<Codec> loader_;
    std::vector<std::string> files_;
    std::string key_ = Key(0);
};

}  // namespace

void RegisterRows() {
    CreateLimits tracked;
    tracked.threads = {1};
    CreateRows<Tracked>::Register("poco_tracked", tracked);
    CreateRows<Untracked>::Register("poco_untracked", CreateLimits());
    RegisterLoad<LoadHost>("poco_tracked");
    RegisterMemory<Tracked>("poco_tracked");
    static Poco::Logger& logger = Poco::Logger::get("bench");
    RegisterSuppressedRecord(
        "poco_tracked", [] { logger.setLevel(Poco::Message::PRIO_FATAL); },
        [](void* address, int number) {
            poco_information_f2(logger, "benchmark record, instance %z, plugin error %d",
                                reinterpret_cast<std::size_t>(address), number);
        });
}

}  // namespace bench
