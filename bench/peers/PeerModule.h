// PeerModule.h: what the modules of the peers have in common.
#ifndef VESSA_BENCH_PEERMODULE_H
#define VESSA_BENCH_PEERMODULE_H

#include <cstdlib>
#include <string>

namespace bench {

// How many keys a module serves. It is asked as it is loaded, so the environment tells it.
constexpr const char* kKeysVariable = "BENCH_KEYS";

inline size_t KeysOfModule() {
    const char* const text = std::getenv(kKeysVariable);
    return text != nullptr ? static_cast<size_t>(std::strtoul(text, nullptr, 10)) : 1;
}
inline void SetKeysOfModule(size_t keys) {
    setenv(kKeysVariable, std::to_string(keys).c_str(), 1);
}

// The interface of the C++ peers.
class Codec {
  public:
    virtual ~Codec() = default;
    virtual int Status() const = 0;
};

class BenchCodec : public Codec {
  public:
    int Status() const override { return value_; }

  private:
    int value_ = 42;
};

}  // namespace bench

#endif
