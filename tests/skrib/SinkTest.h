#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "skrib.h"

namespace skrib_test {

// A receiver made of a function; the built-in sinks are back when it goes.
class SkribSink : public testing::Test {
  protected:
    using Function = std::function<void(const std::string& text)>;

    SkribSink() : logger_(SKRIB_GetLogger("sink")) {}
    ~SkribSink() override {
        SKRIB_SetSink(nullptr, nullptr);
        SKRIB_ReleaseLogger(logger_);
    }

    static void Call(void* user, const char*, int, const char* text, const char*, const char*,
                     int) {
        (*static_cast<const Function*>(user))(text);
    }
    static int Install(const Function& function) {
        return SKRIB_SetSink(Call, const_cast<Function*>(&function));
    }
    void Write(const std::string& text) const {
        SKRIB_Write(logger_, SKRIB_LEVEL_WARNING, text.c_str(), nullptr, nullptr, 0);
    }

    void* const logger_;
};

}  // namespace skrib_test
