// One plug-in that a list file declares.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Texts without a zero byte in them, one behind them, and shared with what they are taken from.
struct PluginAttribute {
    std::string_view name;
    std::string_view value;
};

// What an item is made from. Nothing of it is kept but the path of the list file, which all
// items of one file share.
struct PluginDeclaration {
    std::string_view fkey;
    std::string_view file_path;
    bool delay_load = false;
    bool load_fkeys = false;
    std::shared_ptr<const std::string> config_file_path;  // null: none
    // In the order of the document, each name once.
    std::vector<PluginAttribute> attributes;
};

// A plug-in as it was declared. It never changes: its copies, in the lists, in the table of
// registrations and with whoever asked, are one block of memory.
//
// Thread safety: as a pointer: different copies on any threads, one object by one thread at a
// time.
// Invariants: the block goes with its last copy. An item without a block, from which nothing
// may be read, is what is left after a move and what a query gets its answer into.
class PluginConfigItem {
  public:
    PluginConfigItem() = default;
    explicit PluginConfigItem(const PluginDeclaration& declaration);
    PluginConfigItem(const PluginConfigItem& other) noexcept : block_(other.block_) {
        if (block_ != nullptr) block_->users.fetch_add(1, std::memory_order_relaxed);
    }
    PluginConfigItem(PluginConfigItem&& other) noexcept
        : block_(std::exchange(other.block_, nullptr)) {}
    PluginConfigItem& operator=(PluginConfigItem other) noexcept {
        std::swap(block_, other.block_);
        return *this;
    }
    ~PluginConfigItem() {
        if (block_ != nullptr) Release(block_);
    }

    const std::string& fkey() const { return block_->fkey; }            // never empty if parsed
    const std::string& file_path() const { return block_->file_path; }  // of the module
    bool delay_load() const { return block_->delay_load; }
    bool load_fkeys() const { return block_->load_fkeys; }
    // The list file that it stands in; empty outside of one.
    const std::string& config_file_path() const;

    // Every attribute of the element, with its value as the parser decodes it. The texts live
    // as long as any copy of the item.
    std::vector<PluginAttribute> Attributes() const;
    // Without data when there is none of that name.
    std::string_view FindAttribute(std::string_view name) const;

    // The same under another fkey, which announces no further ones.
    PluginConfigItem WithFkey(std::string_view fkey) const;

  private:
    // The names and values of the attributes follow it, each with its zero byte.
    struct Block {
        explicit Block(const PluginDeclaration& declaration)
            : attributes(static_cast<uint32_t>(declaration.attributes.size())),
              delay_load(declaration.delay_load),
              load_fkeys(declaration.load_fkeys),
              fkey(declaration.fkey),
              file_path(declaration.file_path),
              config_file_path(declaration.config_file_path) {}

        std::atomic<uint32_t> users{1};
        const uint32_t attributes;
        const bool delay_load;
        const bool load_fkeys;
        const std::string fkey;
        const std::string file_path;
        const std::shared_ptr<const std::string> config_file_path;

        char* texts() { return reinterpret_cast<char*>(this + 1); }
    };

    static void Release(Block* block) noexcept;
    static PluginAttribute NextAttribute(const char*& text);

    Block* block_ = nullptr;
};

// The order of registrations, and what tells them apart: the bytes of the fkey, "_" and the path
// of the list file in one text. Negative, 0 or positive.
int CompareRegistrationKeys(const PluginConfigItem& left, const PluginConfigItem& right);
