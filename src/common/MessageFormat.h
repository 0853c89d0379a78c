// Messages with values: a text with numbered placeholders ("{0}", "{1:X}") and its arguments.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "common/Log.h"
#include "common/TextRef.h"

// A list of texts in its text form, "[a, b]".
void AppendLogText(std::string& output, const std::vector<std::string>& list);

// One argument, held by reference until the message is written. Any type with an overload of
// AppendLogText may be an argument; its text is made only if the message is.
class LogArg {
  public:
    LogArg(int32_t value) : kind_(Kind::kSigned), signed_(value) {}
    LogArg(uint32_t value) : kind_(Kind::kUnsigned), unsigned_(value) {}
    LogArg(bool value) : kind_(Kind::kBool), signed_(value) {}
    LogArg(const char* text) : kind_(Kind::kText), pointer_(text) {}
    LogArg(const std::string& text) : kind_(Kind::kString), pointer_(&text) {}
    LogArg(const TextRef& text) : LogArg(text.c_str()) {}
    template <class T>
    LogArg(T* pointer) : kind_(Kind::kPointer), unsigned_(AddressOf(pointer)) {}
    template <class T, class = std::enable_if_t<std::is_class_v<T>>>
    LogArg(const T& value) : kind_(Kind::kList), pointer_(&value), append_(&AppendErased<T>) {}

    void Render(const std::string& spec, std::string& output) const;

  private:
    enum class Kind { kSigned, kUnsigned, kBool, kText, kString, kPointer, kList };

    template <class T>
    static uint64_t AddressOf(T* pointer) {
        return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(pointer));
    }
    template <class T>
    static void AppendErased(std::string& output, const void* value) {
        AppendLogText(output, *static_cast<const T*>(value));
    }
    void RenderPlain(std::string& output) const;
    bool HexValue(uint64_t& value) const;

    Kind kind_;
    int32_t signed_ = 0;
    uint64_t unsigned_ = 0;
    const void* pointer_ = nullptr;
    void (*append_)(std::string&, const void*) = nullptr;
};

// Sixteen upper-case hexadecimal digits, on every platform.
void AppendAddress(std::string& output, uint64_t address);

// Copies literal text from position to output and finds the next placeholder: its index, -1
// for none, and its spec. Gives the position after it, or null at the end of the text, which
// may come together with a last valid index.
const char* NextPlaceholder(const char* position, std::string& output, int32_t& index,
                            std::string& spec);

// The message: object's address in brackets first, unless that is null.
std::string FormatMessage(const void* object, const char* format, const LogArg* args,
                          size_t arg_count);

// Formats and writes; drops the message when there is no memory for it.
void WriteFormatted(const LogSite& site, const void* object, const char* format, const LogArg* args,
                    size_t arg_count);

template <class... Args>
VESSA_COLD void WriteArguments(const LogSite& site, const void* object, const char* format,
                               const Args&... args) {
    const LogArg list[] = {LogArg(args)...};
    WriteFormatted(site, object, format, list, sizeof...(args));
}

template <class... Args>
void LogFormat(const LogSite& site, const void* object, const char* format, const Args&... args) {
    if (format == nullptr || !LogEnabled(site.level)) return;
    WriteArguments(site, object, format, args...);
}

#define LOG_SITE(level)                                                \
  LogSite {                                                            \
    GetLogger(), (level), __FILE__, VESSA_FUNCTION_SIGNATURE, __LINE__ \
  }

// A message with values.
#define LOG_FORMAT(level, format, ...) LogFormat(LOG_SITE(level), nullptr, format, __VA_ARGS__)
// The same, led by the address of the object that says it.
#define LOG_FORMAT_OF(object, level, format, ...) \
  LogFormat(LOG_SITE(level), (object), format, __VA_ARGS__)
