// Shared.h: the keys that all threads use and change. Each has a module file of its own that is
// always a good one; lists add and remove them, the files are replaced under the same path.
#ifndef VESSA_TESTS_RELIABILITY_RANDOM_SHARED_H
#define VESSA_TESTS_RELIABILITY_RANDOM_SHARED_H

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "Files.h"
#include "Host.h"
#include "Random.h"

namespace vessa_random {

// One destroy by two threads: exactly one of them may succeed.
struct Duel {
    void* instance = nullptr;
    int key = 0;
    std::atomic<int> ended{0};
    std::atomic<int> succeeded{0};
};

class Shared {
  public:
    static constexpr int kLists = 3;
    static constexpr int kKeysInList = 3;
    static constexpr int kFirstOwner = 1000;  // of module numbers
    static constexpr int kKeys = kLists * kKeysInList;

    explicit Shared(Host& host);

    // What a create may meet at this moment: compare the word before and after.
    struct Sight {
        uint32_t word;
    };
    Sight Look(int key) const { return Sight{keys_[index(key)].word.load()}; }
    static bool MayBeThere(Sight before, Sight after) {
        return before.word != after.word || (before.word & kThere) != 0;
    }
    static bool MayBeGone(Sight before, Sight after) {
        return before.word != after.word || (before.word & kGone) != 0;
    }

    const std::string& Name(int key) const { return keys_[index(key)].name; }
    // Whether the module of this number was ever the key's.
    static bool IsOf(int key, uint64_t serial) {
        return Files::OwnerOf(serial) == kFirstOwner + key;
    }
    bool IsRegistered(int key) const { return keys_[index(key)].word.load() % 4 == kThere; }

    // Changes one list and runs the round. The caller holds the scan's mutex.
    void Change(Choices& choices);
    // Where a thread leaves the instance that a second one is to destroy as well. Null: none.
    std::atomic<Duel*>& ring() { return ring_; }
    std::vector<std::string> AllKeys() const;

  private:
    static constexpr uint32_t kGone = 1;
    static constexpr uint32_t kThere = 2;

    struct Key {
        std::string name;
        std::string path;
        std::atomic<uint32_t> word{kGone};  // four times a version, and what may be
    };
    struct List {
        std::string path;
        std::vector<Item> items;
    };

    static size_t index(int key) { return static_cast<size_t>(key); }
    void Replace(int key);
    void Publish(const std::vector<bool>& before, const std::vector<bool>& after, int first,
                 bool settled);

    Host& host_;
    std::array<Key, kKeys> keys_;
    std::array<List, kLists> lists_;
    std::atomic<Duel*> ring_{nullptr};
};

}  // namespace vessa_random

#endif
