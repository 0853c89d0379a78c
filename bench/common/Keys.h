// Keys.h: what every contestant is asked for: the same keys, in the same random order.
#ifndef VESSA_BENCH_KEYS_H
#define VESSA_BENCH_KEYS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// "bench.codec.000123"
std::string Key(size_t index);
std::vector<std::string> Keys(size_t count);

// A fixed random sequence of numbers below a bound; at() goes round. The same in every process.
class RandomSequence {
  public:
    explicit RandomSequence(size_t bound);
    uint32_t at(size_t index) const { return numbers_[index % kLength]; }

  private:
    // Longer than the most live instances are many, and a power of two.
    static constexpr size_t kLength = size_t{1} << 20;
    std::vector<uint32_t> numbers_;
};

}  // namespace bench

#endif
