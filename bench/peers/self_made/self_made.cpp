// What an application might write itself: a map from keys to tables of operations and a map of the
// live instances, both under one shared mutex. It checks handles; it has no log, no registration
// while it runs and no care for modules that call back.
#include <dlfcn.h>
#include <vessa/tarnet.h>

#include <map>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>

#include "common/CreateRows.h"

namespace bench {
namespace {

class CreateHost {
  public:
    explicit CreateHost(size_t keys) : keys_(Keys(keys)) {
        void* const module = dlopen(BENCH_MODULE_FILE, RTLD_NOW | RTLD_LOCAL);
        if (module == nullptr) throw std::runtime_error(dlerror());
        const auto entry = reinterpret_cast<tarnet_entry_v2_t>(dlsym(module, TARNET_ENTRY_V2));
        for (const std::string& key : keys_) plugins_[key] = entry();
    }

    void* Create(size_t key) {
        const tarnet_export_table_v2* const table = Find(keys_[key]);
        void* instance = nullptr;
        if (table == nullptr || table->CreateInstance_V2(keys_[key].c_str(), &instance) != 0)
            return nullptr;
        const std::unique_lock<std::shared_mutex> lock(mutex_);
        instances_.emplace(instance, table);
        return instance;
    }

    void Destroy(size_t, void* instance) {
        const tarnet_export_table_v2* table = nullptr;
        {
            const std::unique_lock<std::shared_mutex> lock(mutex_);
            const auto found = instances_.find(instance);
            if (found == instances_.end()) return;
            table = found->second;
            instances_.erase(found);
        }
        table->DestroyInstance(instance);
    }

  private:
    const tarnet_export_table_v2* Find(const std::string& key) {
        const std::shared_lock<std::shared_mutex> lock(mutex_);
        const auto found = plugins_.find(key);
        return found != plugins_.end() ? found->second : nullptr;
    }

    std::vector<std::string> keys_;
    std::shared_mutex mutex_;
    std::map<std::string, const tarnet_export_table_v2*> plugins_;
    std::map<void*, const tarnet_export_table_v2*> instances_;
};

}  // namespace

void RegisterRows() {
    CreateRows<CreateHost>::Register("self_made", CreateLimits());
}

}  // namespace bench
