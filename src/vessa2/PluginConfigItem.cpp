#include "vessa2/PluginConfigItem.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace {

// Not a local: to make that may wait for the end of the process, which waits for the scan.
const std::string kNoPath;

// A text in three parts, read from front to back.
class KeyReader {
  public:
    explicit KeyReader(const PluginConfigItem& item)
        : parts_{item.fkey(), "_", item.config_file_path()} {}

    // What is left of the part that it stands in; empty at the end of the text.
    std::string_view Rest() {
        while (parts_[at_].empty() && at_ + 1 < kParts) ++at_;
        return parts_[at_];
    }
    void Skip(size_t bytes) { parts_[at_].remove_prefix(bytes); }

  private:
    static constexpr size_t kParts = 3;
    std::string_view parts_[kParts];
    size_t at_ = 0;
};

}  // namespace

PluginConfigItem::PluginConfigItem(const PluginDeclaration& declaration) {
    size_t bytes = 0;
    for (const PluginAttribute& attribute : declaration.attributes)
        bytes += attribute.name.size() + attribute.value.size() + 2;
    void* const memory = ::operator new(sizeof(Block) + bytes);
    try {
        block_ = new (memory) Block(declaration);
    } catch (...) {
        ::operator delete(memory);
        throw;
    }
    char* next = block_->texts();
    for (const PluginAttribute& attribute : declaration.attributes) {
        for (const std::string_view text : {attribute.name, attribute.value}) {
            std::memcpy(next, text.data(), text.size() + 1);
            next += text.size() + 1;
        }
    }
}

void PluginConfigItem::Release(Block* block) noexcept {
    if (block->users.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    block->~Block();
    ::operator delete(block);
}

const std::string& PluginConfigItem::config_file_path() const {
    return block_->config_file_path != nullptr ? *block_->config_file_path : kNoPath;
}

PluginAttribute PluginConfigItem::NextAttribute(const char*& text) {
    PluginAttribute attribute;
    attribute.name = text;
    attribute.value = text + attribute.name.size() + 1;
    text += attribute.name.size() + attribute.value.size() + 2;
    return attribute;
}

std::vector<PluginAttribute> PluginConfigItem::Attributes() const {
    std::vector<PluginAttribute> attributes;
    attributes.reserve(block_->attributes);
    const char* next = block_->texts();
    for (uint32_t i = 0; i < block_->attributes; ++i) attributes.push_back(NextAttribute(next));
    return attributes;
}

std::string_view PluginConfigItem::FindAttribute(std::string_view name) const {
    const char* next = block_->texts();
    for (uint32_t i = 0; i < block_->attributes; ++i) {
        const PluginAttribute attribute = NextAttribute(next);
        if (attribute.name == name) return attribute.value;
    }
    return std::string_view();
}

PluginConfigItem PluginConfigItem::WithFkey(std::string_view fkey) const {
    PluginDeclaration declaration;
    declaration.fkey = fkey;
    declaration.file_path = block_->file_path;
    declaration.delay_load = block_->delay_load;
    declaration.config_file_path = block_->config_file_path;
    declaration.attributes = Attributes();
    return PluginConfigItem(declaration);
}

int CompareRegistrationKeys(const PluginConfigItem& left, const PluginConfigItem& right) {
    const std::string& left_fkey = left.fkey();
    const std::string& right_fkey = right.fkey();
    const size_t common = std::min(left_fkey.size(), right_fkey.size());
    if (const int difference = std::memcmp(left_fkey.data(), right_fkey.data(), common))
        return difference;
    if (left_fkey.size() == right_fkey.size()) {
        const std::string& left_path = left.config_file_path();
        const std::string& right_path = right.config_file_path();
        return &left_path == &right_path ? 0 : left_path.compare(right_path);
    }
    // What follows the shorter fkey meets the rest of the longer one.
    KeyReader left_key(left);
    KeyReader right_key(right);
    for (;;) {
        const std::string_view left_rest = left_key.Rest();
        const std::string_view right_rest = right_key.Rest();
        const size_t bytes = std::min(left_rest.size(), right_rest.size());
        if (bytes == 0) return left_rest.empty() ? (right_rest.empty() ? 0 : -1) : 1;
        if (const int difference = std::memcmp(left_rest.data(), right_rest.data(), bytes))
            return difference;
        left_key.Skip(bytes);
        right_key.Skip(bytes);
    }
}
