// Boost.DLL: the function that makes an instance is looked up by its name for each instance.
#include <boost/dll/shared_library.hpp>

#include "common/CreateRows.h"
#include "common/LoadRow.h"

namespace bench {
namespace {

using MakeCodec = void*();

class CreateHost {
  public:
    explicit CreateHost(size_t keys)
        : keys_(Keys(keys)),
          library_(BENCH_MODULE_WITH + std::to_string(keys) + ".so",
                   boost::dll::load_mode::rtld_now) {}
    void* Create(size_t key) { return library_.get<MakeCodec>(keys_[key])(); }
    void Destroy(size_t, void* instance) { std::free(instance); }

  private:
    std::vector<std::string> keys_;
    boost::dll::shared_library library_;
};

class LoadHost {
  public:
    explicit LoadHost(const std::vector<std::string>& files) : files_(files) {}
    bool FirstUse(size_t index) {
        libraries_.emplace_back(files_[index], boost::dll::load_mode::rtld_now);
        return libraries_.back().get<MakeCodec>(key_)() != nullptr;
    }
    static std::string Module() { return std::string(BENCH_MODULE_WITH) + "1.so"; }
    static const char* Symbol() { return "BenchCreate"; }

  private:
    std::vector<std::string> files_;
    std::string key_ = Key(0);
    std::vector<boost::dll::shared_library> libraries_;
};

}  // namespace

void RegisterRows() {
    CreateRows<CreateHost>::Register("boost_dll", CreateLimits());
    RegisterLoad<LoadHost>("boost_dll");
}

}  // namespace bench
