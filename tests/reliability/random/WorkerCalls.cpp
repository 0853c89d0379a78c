// The calls that make and end nothing: queries, attributes, keys, users.
#include <cstring>

#include "Compare.h"
#include "Worker.h"

namespace vessa_random {

void Worker::Query(Choices& choices) {
    const size_t chosen = choices.Next();
    Plan plan = MakePlan(choices);
    const bool unknown = choices.OneIn(6);
    const long nth = choices.OneIn(10) ? 1 + choices.Below(3) : 0;
    if (held_.empty()) return;
    if (nth > 0) plan.nested = 0;
    // Nothing else may destroy it while it is asked.
    const Held asked = held_[chosen % held_.size()];
    held_.erase(held_.begin() + static_cast<std::ptrdiff_t>(chosen % held_.size()));
    Count(unknown ? kQueryNoKey : kQuery);
    void* found = kJunk;
    int error = kJunkError;
    int result = 0;
    long failed = 0;
    const Plan before = plan_;
    plan_ = plan;
    {
        const Answers answers(this);
        const Shortage shortage(nth);
        result =
            library_.QueryInterface(asked.instance, unknown ? "none" : kRandomIkey, &found, &error);
        failed = shortage.Failed();
    }
    plan_ = before;
    held_.push_back(asked);
    if (failed > 0) {
        Count(kAllocation);
        if (result == VESSA_ERR_OUT_OF_MEMORY)
            return CompareCall("query", result, false, 0, result, found, error);
    }
    if (plan.action != kRandomGoOn) {
        Count(plan.action == kRandomFail          ? kFailQuery
              : plan.action == kRandomFailGarbage ? kFailQueryGarbage
                                                  : kThrowQuery);
        return CompareCall("query", VESSA_FAILED, false, CodeOf(plan.action, plan.code), result,
                           found, error);
    }
    if (unknown)
        return CompareCall("query", VESSA_FAILED, false, kRandomErrorIkey, result, found, error);
    CompareCall("query", VESSA_OK, true, 0, result, found, error);
    const auto* const interface = static_cast<const RandomInterface*>(found);
    if (interface->instance != asked.instance || interface->serial != asked.serial ||
        interface->Add(2, 3) != 5)
        Mismatch("query", "the interface of the instance", "another");
}

void Worker::QueryDead(Choices& choices) {
    const size_t chosen = choices.Next();
    if (dead_.empty()) return;
    Count(kQueryDead);
    void* found = kJunk;
    int error = kJunkError;
    const int result =
        library_.QueryInterface(dead_[chosen % dead_.size()], kRandomIkey, &found, &error);
    CompareCall("query of a dead instance", VESSA_ERR_ARGUMENT, false, 0, result, found, error);
}

void Worker::Attribute(Choices& choices) {
    const std::string key = RandomKey(choices);
    const bool missing = choices.OneIn(8);
    const int room = choices.Below(12);
    const long nth = choices.OneIn(10) ? 1 + choices.Below(3) : 0;
    const Item* const item = model_.Declared(key);
    const std::string expected = item != nullptr ? item->note : "";
    char value[64];
    std::memset(value, '#', sizeof value);
    // A room of 11 asks for the length alone.
    unsigned int length = static_cast<unsigned int>(room);
    int result = 0;
    long failed = 0;
    {
        const Shortage shortage(nth);
        result = library_.QueryConfigAttribute(key.c_str(), missing ? "none" : "note",
                                               room == 11 ? nullptr : value, &length);
        failed = shortage.Failed();
    }
    Count(kAttribute);
    if (failed > 0) {
        Count(kAllocation);
        if (result == VESSA_ERR_OUT_OF_MEMORY) return CountResult(result);
    }
    const std::string about = "attribute of " + key;
    const size_t size = expected.size();
    if (item == nullptr || missing) {
        CompareResult(about, VESSA_FAILED, result);
        if (length != static_cast<unsigned int>(room))
            Mismatch(about, "the length as it was", std::to_string(length));
        return;
    }
    const bool too_small = room != 11 && size > static_cast<size_t>(room);
    if (too_small) Count(kAttributeShort);
    CompareResult(about, too_small ? VESSA_ERR_BUFFER_TOO_SMALL : VESSA_OK, result);
    std::string buffer(sizeof value, '#');
    if (!too_small && room != 11) {
        buffer.replace(0, size, expected);
        if (size < static_cast<size_t>(room)) buffer[size] = '\0';
    }
    if (length != size || buffer != std::string(value, sizeof value))
        Mismatch(about, "\"" + expected + "\" and nothing more",
                 std::to_string(length) + " bytes, \"" + std::string(value, sizeof value) + "\"");
}

void Worker::AllKeys(Choices& choices) {
    const long nth = choices.OneIn(10) ? 1 + choices.Below(40) : 0;
    char** keys = reinterpret_cast<char**>(kJunk);
    unsigned int count = 77;
    int result = 0;
    long failed = 0;
    {
        const Shortage shortage(nth);
        result = library_.QueryAllFkeys(&keys, &count);
        failed = shortage.Failed();
    }
    Count(kAllKeys);
    if (failed > 0) {
        Count(kAllocation);
        CompareResult("all keys", VESSA_ERR_OUT_OF_MEMORY, result);
    } else {
        CompareResult("all keys", VESSA_OK, result);
        std::vector<std::string> own;
        for (unsigned int i = 0; i < count; ++i) {
            if (IsOwn(keys[i])) own.push_back(keys[i]);
        }
        if (own != model_.AllKeys())
            Mismatch("all keys", std::to_string(model_.AllKeys().size()) + " own ones in order",
                     std::to_string(own.size()) + " own ones, or in another order");
    }
    if (keys != nullptr) CompareResult("release", VESSA_OK, library_.ReleaseAllFkeys(keys, count));
}

void Worker::Init(Choices& /*choices*/) {
    if (users_ >= 3) return;
    Count(kInit);
    CompareResult("init", VESSA_OK, library_.Init());
    ++users_;
}

void Worker::Uninit(Choices& /*choices*/) {
    if (users_ == 0) return;
    Count(kUninit);
    --users_;
    library_.Uninit();
}

void Worker::GiveBackUsers() {
    for (; users_ > 0; --users_) library_.Uninit();
}

void Worker::BadArgument(Choices& choices) {
    Count(kBadArgument);
    void* pointer = kJunk;
    int error = kJunkError;
    unsigned int number = 9;
    char** keys = reinterpret_cast<char**>(kJunk);
    int result = 0;
    bool cleared = true;
    const auto clears = [&] { cleared = pointer == nullptr && error == 0; };
    switch (choices.Below(12)) {
        case 0:
            result = library_.CreateInstance(nullptr, &pointer, &error), clears();
            break;
        case 1:
            result = library_.CreateInstance("", &pointer, &error), clears();
            break;
        case 2:
            result = library_.CreateInstance("a", nullptr, &error), cleared = error == 0;
            break;
        case 3:
            result = library_.DestroyInstance(nullptr, &error), cleared = error == 0;
            break;
        case 4:
            result = library_.DestroyInstance(kJunk, &error), cleared = error == 0;
            break;
        case 5:
            result = library_.QueryInterface(nullptr, "i", &pointer, &error), clears();
            break;
        case 6:
            result = library_.QueryInterface(kJunk, nullptr, &pointer, &error), clears();
            break;
        case 7:
            result = library_.QueryInterface(kJunk, "i", &pointer, &error), clears();
            break;
        case 8:
            result = library_.QueryConfigAttribute(nullptr, "a", nullptr, &number);
            break;
        case 9:
            result = library_.QueryConfigAttribute("a", "a", nullptr, nullptr);
            break;
        case 10:
            result = library_.QueryAllFkeys(&keys, nullptr), cleared = keys == nullptr;
            break;
        default:
            result = library_.ReleaseAllFkeys(nullptr, 1);
            break;
    }
    CompareResult("bad argument", VESSA_ERR_ARGUMENT, result);
    if (!cleared) Mismatch("bad argument", "cleared out parameters", "what was there before");
}

}  // namespace vessa_random
