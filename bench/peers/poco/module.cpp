#include <Poco/ClassLibrary.h>

#include "common/Keys.h"
#include "peers/PeerModule.h"

// What the macros of a manifest make, for keys that are known at run time.
bool pocoBuildManifest(Poco::ManifestBase* base) {
    auto* const manifest = dynamic_cast<Poco::Manifest<bench::Codec>*>(base);
    if (manifest == nullptr) return false;
    const size_t keys = bench::KeysOfModule();
    for (size_t i = 0; i < keys; ++i) {
        manifest->insert(
            new Poco::MetaObject<bench::BenchCodec, bench::Codec>(bench::Key(i).c_str()));
    }
    return true;
}
