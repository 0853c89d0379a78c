// Fuzz.h: what the fuzzing drivers share.
//
// A driver is one source file with LLVMFuzzerTestOneInput: it makes of the bytes what it wants,
// runs the library on it and an oracle beside it, and calls Fail where they differ. It is built
// twice:
//
//     vessa_fuzz_<driver>         with libFuzzer, in the build folder of the preset "fuzz"
//     vessa_fuzz_<driver>_replay  with Replay.cpp, in every one: runs stored inputs
//
// The oracle of each driver can be made wrong in kPlants ways, one at a time: Planted(n) is true in
// the n-th. The replay of the corpus has to find each of them, or the oracle does not look.
//
// To keep a finding: minimise it (-minimize_crash=1), name it after what it shows, and put it into
// fuzz/corpus/<driver>; tests/reliability/fuzz/run.sh runs it in every build from then on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace vessa_fuzz {

// Of each driver.
extern const int kPlants;

// The exit code of a program that found a difference.
constexpr int kFound = 77;

// Tells what differs. The replaying program ends with kFound, libFuzzer with its report.
[[noreturn]] void Fail(const std::string& what);

inline void Expect(bool holds, const char* what) {
    if (!holds) Fail(what);
}
// Two texts, shown with everything that cannot be printed escaped.
void ExpectSame(const std::string& actual, const std::string& expected, const char* what);
std::string Printable(const std::string& text);

bool Planted(int plant);
void SetPlanted(int plant);

// What the library logs from this level on is written down, and dropped by the receiver.
void DropLog(int threshold);

// The input as choices, from its front to its back; nothing but zeros comes behind its end.
class Input {
  public:
    Input(const uint8_t* data, size_t size) : text_(reinterpret_cast<const char*>(data), size) {}

    bool AtEnd() const { return at_ >= text_.size(); }
    uint8_t Byte() { return AtEnd() ? uint8_t{0} : static_cast<uint8_t>(text_[at_++]); }
    // 0 to count - 1.
    size_t Choose(size_t count) { return Byte() % count; }
    int32_t Number() {
        uint32_t number = 0;
        for (int i = 0; i < 4; ++i) number = number << 8 | Byte();
        return static_cast<int32_t>(number);
    }
    // A length in one byte and the text.
    std::string Text() {
        const size_t length = Byte();
        std::string text = text_.substr(at_ < text_.size() ? at_ : text_.size(), length);
        at_ += text.size();
        return text;
    }
    std::string Rest() {
        std::string rest = text_.substr(at_ < text_.size() ? at_ : text_.size());
        at_ = text_.size();
        return rest;
    }

  private:
    const std::string text_;
    size_t at_ = 0;
};

}  // namespace vessa_fuzz
