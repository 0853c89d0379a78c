#include "Shared.h"

#include "Counters.h"
#include "TestPlatform.h"

namespace vessa_random {

Shared::Shared(Host& host) : host_(host) {
    for (int k = 0; k < kKeys; ++k) {
        Key& key = keys_[index(k)];
        const std::string number = std::to_string(k);
        key.name = "s" + number;
        key.path = host.files().Path("s/m" + number + "/shared" + number + MODULE_SUFFIX);
        Replace(k);
    }
    for (size_t i = 0; i < lists_.size(); ++i)
        lists_[i].path = host.files().Path("s/l" + std::to_string(i) + "/tarnet.xml");
}

void Shared::Replace(int key) {
    host_.files().PutModule(keys_[index(key)].path,
                            Files::MakeModule(kFirstOwner + key, ModuleKind::kGood));
}

void Shared::Publish(const std::vector<bool>& before, const std::vector<bool>& after, int first,
                     bool settled) {
    for (int i = 0; i < kKeysInList; ++i) {
        const auto at = static_cast<size_t>(i);
        if (before[at] == after[at]) continue;
        std::atomic<uint32_t>& word = keys_[index(first + i)].word;
        const uint32_t may = settled ? (after[at] ? kThere : kGone) : kThere | kGone;
        word.store((word.load() / 4 + 1) * 4 + may);
    }
}

void Shared::Change(Choices& choices) {
    const int chosen = choices.Below(kLists);
    List& list = lists_[static_cast<size_t>(chosen)];
    const int first = chosen * kKeysInList;
    std::vector<bool> before(kKeysInList, false);
    for (const Item& item : list.items)
        before[static_cast<size_t>(std::stoi(item.key.substr(1)) - first)] = true;
    std::vector<bool> after(kKeysInList, false);
    std::vector<Item> items;
    for (int i = 0; i < kKeysInList; ++i) {
        Key& key = keys_[index(first + i)];
        const bool replace = choices.OneIn(3);
        const bool there = !choices.OneIn(3);
        const bool delayed = choices.OneIn(2);
        if (replace) {
            Replace(first + i);
            Count(kModuleReplaced);
        }
        if (!there) continue;
        after[static_cast<size_t>(i)] = true;
        items.push_back(Item{key.name, key.path, list.path, std::to_string(choices.Below(1000)),
                             delayed, false});
    }
    Publish(before, after, first, false);
    if (items.empty() && choices.OneIn(2))
        host_.files().Remove(list.path);
    else
        host_.files().PutList(list.path, items);
    host_.Round();
    Publish(before, after, first, true);
    list.items = items;
    Count(kSharedChanged);
}

std::vector<std::string> Shared::AllKeys() const {
    std::vector<std::string> keys;
    for (const List& list : lists_) {
        for (const Item& item : list.items) keys.push_back(item.key);
    }
    return keys;
}

}  // namespace vessa_random
