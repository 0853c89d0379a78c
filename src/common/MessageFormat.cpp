#include "common/MessageFormat.h"

#include <cstdio>

#include "common/Contain.h"
#include "skrib.h"

namespace {

constexpr char kParseError[] = "(parse error)";
constexpr size_t kReservedBytes = 1024;

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

void AppendHex(std::string& output, uint64_t value, bool upper) {
    const char* const digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    char buffer[16];
    size_t at = sizeof buffer;
    do {
        buffer[--at] = digits[value & 0xF];
        value >>= 4;
    } while (value != 0);
    output.append(buffer + at, sizeof buffer - at);
}

}  // namespace

void AppendAddress(std::string& output, uint64_t address) {
    std::string digits;
    AppendHex(digits, address, true);
    output.append(16 - digits.size(), '0').append(digits);
}

void AppendLogText(std::string& output, const std::vector<std::string>& list) {
    output += '[';
    for (size_t i = 0; i < list.size(); ++i) {
        if (i != 0) output += ", ";
        output += list[i];
    }
    output += ']';
}

void LogArg::RenderPlain(std::string& output) const {
    char buffer[24];
    switch (kind_) {
        case Kind::kSigned:
            std::snprintf(buffer, sizeof buffer, "%d", signed_);
            output += buffer;
            break;
        case Kind::kUnsigned:
            std::snprintf(buffer, sizeof buffer, "%u", static_cast<uint32_t>(unsigned_));
            output += buffer;
            break;
        case Kind::kBool:
            output += signed_ != 0 ? "true" : "false";
            break;
        case Kind::kText:
            if (pointer_ != nullptr) output += static_cast<const char*>(pointer_);
            break;
        case Kind::kString:
            output += *static_cast<const std::string*>(pointer_);
            break;
        case Kind::kPointer:
            AppendAddress(output, unsigned_);
            break;
        case Kind::kList:
            append_(output, pointer_);
            break;
    }
}

// The value that "x" and "X" show; false for the types that have none.
bool LogArg::HexValue(uint64_t& value) const {
    switch (kind_) {
        case Kind::kSigned:
            value = static_cast<uint64_t>(int64_t{signed_});
            return true;
        case Kind::kUnsigned:
        case Kind::kPointer:
            value = unsigned_;
            return true;
        case Kind::kText:
            value = AddressOf(static_cast<const char*>(pointer_));
            return true;
        case Kind::kBool:
        case Kind::kString:
        case Kind::kList:
            return false;
    }
    return false;
}

void LogArg::Render(const std::string& spec, std::string& output) const {
    if (spec.empty()) {
        RenderPlain(output);
    } else if (spec == "x" || spec == "X") {
        uint64_t value = 0;
        if (HexValue(value))
            AppendHex(output, value, spec == "X");
        else
            output += kParseError;
    } else if (spec == "t" || spec == "T") {
        output += kParseError;
    } else {
        output += spec;
    }
}

const char* NextPlaceholder(const char* position, std::string& output, int32_t& index,
                            std::string& spec) {
    index = -1;
    spec.clear();
    if (position == nullptr) return nullptr;
    const char* p = position;
    while (*p != '\0') {
        if (*p == '}') {
            if (p[1] == '}') output += *p++;
            ++p;
        } else if (*p != '{') {
            output += *p++;
        } else if (p[1] == '{') {
            output += '{';
            p += 2;
        } else if (!IsDigit(p[1])) {
            ++p;
        } else {
            // At most two digits: "{100}" is no placeholder.
            int32_t number = *++p - '0';
            ++p;
            if (IsDigit(*p)) number = number * 10 + (*p++ - '0');
            if (*p == ':') {
                ++p;
                while (*p != '\0' && *p != '}' && *p != '{') spec += *p++;
                if (*p != '}') {
                    output += spec;
                    spec.clear();
                    continue;
                }
            }
            if (*p == '}') {
                index = number;
                return p[1] != '\0' ? p + 1 : nullptr;
            }
        }
    }
    return nullptr;
}

std::string FormatMessage(const void* object, const char* format, const LogArg* args,
                          size_t arg_count) {
    std::string output;
    output.reserve(kReservedBytes);
    if (object != nullptr) {
        output += '[';
        AppendAddress(output, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(object)));
        output += ']';
    }
    std::string spec;
    const char* position = format;
    do {
        int32_t index = -1;
        position = NextPlaceholder(position, output, index, spec);
        if (index < 0) continue;
        if (static_cast<size_t>(index) < arg_count)
            args[index].Render(spec, output);
        else
            output += spec;
    } while (position != nullptr);
    return output;
}

void WriteFormatted(const LogSite& site, const void* object, const char* format, const LogArg* args,
                    size_t arg_count) {
    try {
        const std::string output = FormatMessage(object, format, args, arg_count);
        if (output.empty() || !LogEnabled(site.level)) return;
        if (void* const handle = site.logger->load())
            SKRIB_Write(handle, site.level, output.c_str(), site.file, site.function, site.line);
    } catch (...) {
        LetForcedUnwindingPass();
        // A message that cannot be built must not end the operation that wanted to say it.
    }
}
