// ROS class_loader, with instances whose life the application ends itself.
#include <console_bridge/console.h>

#include <class_loader/class_loader.hpp>

#include "common/CreateRows.h"
#include "common/LoadRow.h"
#include "peers/PeerModule.h"

namespace bench {
namespace {

class CreateHost {
  public:
    explicit CreateHost(size_t keys) : keys_(Keys(keys)) {
        console_bridge::setLogLevel(console_bridge::CONSOLE_BRIDGE_LOG_NONE);
        SetKeysOfModule(keys);
        loader_ = std::make_unique<class_loader::ClassLoader>(BENCH_PEER_MODULE);
    }
    void* Create(size_t key) { return loader_->createUnmanagedInstance<Codec>(keys_[key]); }
    void Destroy(size_t, void* instance) { delete static_cast<Codec*>(instance); }

  private:
    std::vector<std::string> keys_;
    std::unique_ptr<class_loader::ClassLoader> loader_;
};

class LoadHost {
  public:
    explicit LoadHost(const std::vector<std::string>& files) : files_(files) {
        console_bridge::setLogLevel(console_bridge::CONSOLE_BRIDGE_LOG_NONE);
        SetKeysOfModule(1);
    }
    bool FirstUse(size_t index) {
        loaders_.push_back(std::make_unique<class_loader::ClassLoader>(files_[index]));
        return loaders_.back()->createUnmanagedInstance<Codec>(key_) != nullptr;
    }
    static std::string Module() { return BENCH_PEER_MODULE; }
    static const char* Symbol() { return "BenchIsRegistered"; }

  private:
    std::vector<std::string> files_;
    std::string key_ = Key(0);
    std::vector<std::unique_ptr<class_loader::ClassLoader>> loaders_;
};

}  // namespace

void RegisterRows() {
    CreateLimits limits;
    // 10,000 keys cost a walk through all of them; 100,000 would take seconds an operation.
    limits.keys = {1, 100, 10000};
    CreateRows<CreateHost>::Register("class_loader", limits);
    RegisterLoad<LoadHost>("class_loader");
}

}  // namespace bench
