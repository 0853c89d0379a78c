// The message format against its rules. The input: which arguments, their values, and the text.
#include "common/MessageFormat.h"

#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

#include "fuzz/Fuzz.h"
#include "unit/MessageRules.h"

const int vessa_fuzz::kPlants = 5;

namespace {

using vessa_fuzz::Input;
using vessa_fuzz::Planted;

constexpr size_t kArguments = 7;
constexpr size_t kLongestText = 1000;

struct Values {
    int32_t signed_number = 0;
    uint32_t unsigned_number = 0;
    bool truth = false;
    std::string word;
    std::string text;
    void* pointer = nullptr;
    std::vector<std::string> list;
};

std::string Hex(uint64_t value, bool upper) {
    char text[24];
    std::snprintf(text, sizeof text, upper ? "%" PRIX64 : "%" PRIx64, value);
    return text;
}

std::string Plain(const Values& values, int index) {
    char address[24];
    std::string list;
    switch (index) {
        case 0:
            return std::to_string(values.signed_number);
        case 1:
            return std::to_string(values.unsigned_number);
        case 2:
            return values.truth ? "true" : "false";
        case 3:
            return values.word;
        case 4:
            return values.text;
        case 5:
            std::snprintf(address, sizeof address, "%016" PRIX64,
                          reinterpret_cast<uint64_t>(values.pointer));
            return address;
        default:
            for (size_t i = 0; i < values.list.size(); ++i)
                list += (i == 0 ? "" : ", ") + values.list[i];
            return Planted(4) ? list : "[" + list + "]";
    }
}

// What stands for the argument of that index with that spec.
std::string Rendered(const Values& values, int index, const std::string& spec) {
    if (static_cast<size_t>(index) >= kArguments) return Planted(1) ? "" : spec;
    if (spec.empty()) return Plain(values, index);
    if (spec == "t" || spec == "T") return "(parse error)";
    if (spec != "x" && spec != "X") return spec;
    const bool upper = spec == "X";
    switch (index) {
        case 0:
            return Hex(Planted(2) ? static_cast<uint32_t>(values.signed_number)
                                  : static_cast<uint64_t>(int64_t{values.signed_number}),
                       upper);
        case 1:
            return Hex(values.unsigned_number, upper);
        case 3:
            return Hex(reinterpret_cast<uintptr_t>(values.word.c_str()), upper);
        case 5:
            return Hex(reinterpret_cast<uintptr_t>(values.pointer), Planted(3) ? !upper : upper);
        default:
            return "(parse error)";
    }
}

// Texts end at their first zero byte where they are C texts.
Values TakeValues(Input& input) {
    Values values;
    values.signed_number = input.Number();
    values.unsigned_number = static_cast<uint32_t>(input.Number());
    values.truth = input.Choose(2) == 1;
    values.word = input.Text().c_str();
    values.text = input.Text();
    values.pointer = reinterpret_cast<void*>(static_cast<intptr_t>(input.Number()));
    for (size_t count = input.Choose(4); count > 0; --count) values.list.push_back(input.Text());
    return values;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const Values values = TakeValues(input);
    void* const object = input.Choose(2) == 0 ? nullptr : values.pointer;
    const std::string format = input.Rest().substr(0, kLongestText).c_str();
    const LogArg arguments[kArguments] = {
        LogArg(values.signed_number), LogArg(values.unsigned_number),
        LogArg(values.truth),         LogArg(values.word.c_str()),
        LogArg(values.text),          LogArg(values.pointer),
        LogArg(values.list)};
    const std::string message = FormatMessage(object, format.c_str(), arguments, kArguments);
    std::string expected = vessa_test::TranscribedMessage(
        format, [&](int index, const std::string& spec) { return Rendered(values, index, spec); });
    if (Planted(5) && format.find("}}") != std::string::npos) expected += "}";
    if (object != nullptr) expected.insert(0, "[" + Plain(values, 5) + "]");
    vessa_fuzz::ExpectSame(message, expected, "the message");
    return 0;
}
