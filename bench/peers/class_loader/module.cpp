#include <class_loader/class_loader.hpp>

#include "common/Keys.h"
#include "peers/PeerModule.h"

namespace {

using Factory = class_loader::impl::UniquePtr<class_loader::impl::AbstractMetaObjectBase>;

// What the registration macro makes, for keys that are known at run time. The module owns it.
std::vector<Factory> RegisterAll() {
    std::vector<Factory> factories;
    const size_t keys = bench::KeysOfModule();
    for (size_t i = 0; i < keys; ++i) {
        factories.push_back(class_loader::impl::registerPlugin<bench::BenchCodec, bench::Codec>(
            bench::Key(i), "bench::Codec"));
    }
    return factories;
}
const std::vector<Factory> registered = RegisterAll();

}  // namespace

// Something to look up for who loads the file without the class loader.
extern "C" __attribute__((visibility("default"))) bool BenchIsRegistered() {
    return !registered.empty();
}
