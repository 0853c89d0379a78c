// A text that is kept where its owner is, if it is short.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

#include "common/TextRef.h"

// Thread safety: constant after construction.
// Invariants: a text of less than kInline bytes stands in head_ with a zero byte behind it; of a
// longer one head_ holds the address.
class KeyText {
  public:
    explicit KeyText(std::string_view text) : size_(static_cast<uint32_t>(text.size())) {
        if (IsInline()) {
            std::memcpy(head_, text.data(), text.size());
            return;
        }
        char* const copy = new char[text.size() + 1];
        std::memcpy(copy, text.data(), text.size());
        copy[text.size()] = '\0';
        std::memcpy(head_, &copy, sizeof copy);
    }
    ~KeyText() {
        if (!IsInline()) delete[] c_str();
    }
    KeyText(const KeyText&) = delete;
    KeyText& operator=(const KeyText&) = delete;

    const char* c_str() const {
        if (IsInline()) return head_;
        const char* text;
        std::memcpy(&text, head_, sizeof text);
        return text;
    }
    std::string_view view() const { return std::string_view(c_str(), size_); }
    TextRef ref() const { return TextRef(c_str(), size_); }

    static constexpr uint32_t kInline = 24;

  private:
    bool IsInline() const { return size_ < kInline; }

    char head_[kInline] = {};
    const uint32_t size_;
};
