// codec.checked: another codec's format followed by four bytes, the CRC-32 of the plain data,
// lowest byte first. Which codec is the attribute "base" of the element that declares the
// fkey; its instance is made through the plug-in library, like any application would.
#include <zlib.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <string>

#include "plugins/common/codec_module.h"
#include "vessa/vessa.h"

namespace {

constexpr std::size_t kTrailerBytes = 4;

// A checked codec may stand on another one; a circle of them must not fill the stack.
constexpr int kMaxNesting = 8;
thread_local int nesting = 0;

class Nesting {
  public:
    Nesting() { ++nesting; }
    ~Nesting() { --nesting; }
    Nesting(const Nesting&) = delete;
    Nesting& operator=(const Nesting&) = delete;
    bool TooDeep() const { return nesting > kMaxNesting; }
};

struct DestroyInstance {
    void operator()(void* instance) const { VESSA_DestroyInstance(instance, nullptr); }
};
using Instance = std::unique_ptr<void, DestroyInstance>;

class CheckedStream final : public codec::Stream {
  public:
    CheckedStream(Instance instance, codec_stream* base)
        : instance_(std::move(instance)), base_(base) {}

  private:
    int Open(int level) override {
        crc_ = crc32(0, nullptr, 0);
        base_done_ = false;
        trailer_count_ = 0;
        return base_->begin(base_, compressing() ? CODEC_COMPRESS : CODEC_DECOMPRESS, level);
    }

    int Step(codec::Window& window, bool finish) override {
        if (!base_done_) {
            const int result = StepBase(window, finish);
            if (result != CODEC_DONE) return result;
            base_done_ = true;
            for (std::size_t i = 0; i < kTrailerBytes; ++i) {
                computed_[i] = static_cast<unsigned char>(crc_ >> (8 * i));
            }
        }
        return compressing() ? WriteTrailer(window) : CheckTrailer(window);
    }

    void Close() noexcept override { base_->end(base_); }

    int StepBase(codec::Window& window, bool finish) {
        const unsigned char* const plain = compressing() ? window.in() : window.out();
        std::size_t consumed = 0;
        std::size_t produced = 0;
        const int result = base_->process(base_, window.in(), window.in_left(), &consumed,
                                          window.out(), window.out_left(), &produced, finish);
        if (result < 0) return result;
        AddToCrc(plain, compressing() ? consumed : produced);
        window.Consume(consumed);
        window.Produce(produced);
        return result;
    }

    void AddToCrc(const unsigned char* data, std::size_t count) {
        while (count != 0) {
            const auto piece =
                static_cast<uInt>(std::min<std::size_t>(count, std::numeric_limits<uInt>::max()));
            crc_ = crc32(crc_, data, piece);
            data += piece;
            count -= piece;
        }
    }

    int WriteTrailer(codec::Window& window) {
        while (trailer_count_ != kTrailerBytes && window.out_left() != 0) {
            *window.out() = computed_[trailer_count_++];
            window.Produce(1);
        }
        return trailer_count_ == kTrailerBytes ? CODEC_DONE : CODEC_OK;
    }

    int CheckTrailer(codec::Window& window) {
        while (trailer_count_ != kTrailerBytes && window.in_left() != 0) {
            if (*window.in() != computed_[trailer_count_++]) return CODEC_ERR_CHECKSUM;
            window.Consume(1);
        }
        return trailer_count_ == kTrailerBytes ? CODEC_DONE : CODEC_OK;
    }

    const Instance instance_;
    codec_stream* const base_;
    uLong crc_ = 0;
    bool base_done_ = false;
    unsigned char computed_[kTrailerBytes] = {};
    std::size_t trailer_count_ = 0;
};

// The attribute "base", empty if there is none.
std::string BaseOf(const char* fkey) {
    unsigned int length = 0;
    if (VESSA_QueryConfigAttribute(fkey, "base", nullptr, &length) != VESSA_OK) return {};
    std::string text(std::size_t{length} + 1, '\0');
    unsigned int size = length + 1;
    if (VESSA_QueryConfigAttribute(fkey, "base", text.data(), &size) != VESSA_OK) return {};
    text.resize(std::min(length, size));
    return text;
}

struct CheckedModule {
    static constexpr const char* kAnnounced[] = {nullptr};
    static const char* Version() { return "1"; }

    static std::unique_ptr<codec::Stream> Create(const char* fkey, int& error) {
        error = CODEC_ERR_BASE;
        const Nesting depth;
        const std::string base = BaseOf(fkey);
        if (depth.TooDeep() || base.empty()) return nullptr;
        void* raw = nullptr;
        if (VESSA_CreateInstance(base.c_str(), &raw, nullptr) != VESSA_OK) return nullptr;
        Instance instance(raw);
        void* stream = nullptr;
        if (VESSA_QueryInterface(raw, CODEC_STREAM_IKEY, &stream, nullptr) != VESSA_OK ||
            stream == nullptr) {
            return nullptr;
        }
        return std::make_unique<CheckedStream>(std::move(instance),
                                               static_cast<codec_stream*>(stream));
    }
};

}  // namespace

const tarnet_export_table_v2* TARNET_GetPluginInterface_V2(void) {
    return codec::ModuleTable<CheckedModule>::Get();
}
