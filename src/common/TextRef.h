// A text that ends with a zero byte and belongs to somebody else.
#pragma once

#include <cstring>
#include <string>
#include <string_view>

// Thread safety: none; it is a value, good while the text it refers to is.
class TextRef {
  public:
    TextRef(const char* text) : text_(text), size_(std::strlen(text)) {}
    TextRef(const char* text, size_t size) : text_(text), size_(size) {}
    TextRef(const std::string& text) : text_(text.c_str()), size_(text.size()) {}

    const char* c_str() const { return text_; }
    bool empty() const { return size_ == 0; }
    std::string_view view() const { return std::string_view(text_, size_); }

    friend bool operator==(const TextRef& left, const TextRef& right) {
        return left.view() == right.view();
    }
    friend bool operator!=(const TextRef& left, const TextRef& right) { return !(left == right); }
    friend bool operator<(const TextRef& left, const TextRef& right) {
        return left.view() < right.view();
    }

  private:
    const char* text_;
    size_t size_;
};
