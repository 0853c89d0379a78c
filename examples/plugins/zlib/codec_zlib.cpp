// codec.zlib, codec.gzip and codec.deflate: one module, three wrappings of the same
// compression. The list file declares the first; the module announces the others.
// The bare form, codec.deflate, has no check sum.
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>

#include "plugins/common/codec_module.h"

namespace {

// What the fkey chooses, as the library's window size says it.
struct Wrapping {
    const char* fkey;
    int window_bits;
};
constexpr Wrapping kWrappings[] = {
    {"codec.zlib", MAX_WBITS}, {"codec.gzip", MAX_WBITS + 16}, {"codec.deflate", -MAX_WBITS}};

constexpr int kMemoryLevel = 8;

class ZlibStream final : public codec::Stream {
  public:
    explicit ZlibStream(int window_bits) : window_bits_(window_bits) {}
    ~ZlibStream() override { Release(); }

  private:
    enum class Live { kNone, kDeflate, kInflate };

    int Open(int level) override {
        stream_ = z_stream{};
        const int code =
            compressing()
                ? deflateInit2(&stream_,
                               level == CODEC_LEVEL_DEFAULT ? Z_DEFAULT_COMPRESSION : level,
                               Z_DEFLATED, window_bits_, kMemoryLevel, Z_DEFAULT_STRATEGY)
                : inflateInit2(&stream_, window_bits_);
        if (code == Z_MEM_ERROR) return CODEC_ERR_OUT_OF_MEMORY;
        if (code != Z_OK) return CODEC_ERR_INTERNAL;
        live_ = compressing() ? Live::kDeflate : Live::kInflate;
        return CODEC_OK;
    }

    int Step(codec::Window& window, bool finish) override {
        constexpr std::size_t kMost = std::numeric_limits<uInt>::max();
        const std::size_t in_len = std::min(window.in_left(), kMost);
        const std::size_t out_cap = std::min(window.out_left(), kMost);
        // The library refuses a null output even when it has no room, and a null input even
        // when it is empty.
        Bytef nothing = 0;
        stream_.next_in = in_len != 0 ? const_cast<Bytef*>(window.in()) : &nothing;
        stream_.avail_in = static_cast<uInt>(in_len);
        stream_.next_out = out_cap != 0 ? window.out() : &nothing;
        stream_.avail_out = static_cast<uInt>(out_cap);
        const bool last = finish && in_len == window.in_left();
        const int code = compressing() ? deflate(&stream_, last ? Z_FINISH : Z_NO_FLUSH)
                                       : inflate(&stream_, Z_NO_FLUSH);
        window.Consume(in_len - stream_.avail_in);
        window.Produce(out_cap - stream_.avail_out);
        switch (code) {
            case Z_STREAM_END:
                return CODEC_DONE;
            case Z_OK:
            case Z_BUF_ERROR:  // could not go on: the caller sees that no byte moved
                return CODEC_OK;
            case Z_MEM_ERROR:
                return CODEC_ERR_OUT_OF_MEMORY;
            case Z_DATA_ERROR:
            case Z_NEED_DICT:
                return CODEC_ERR_CORRUPT;
            default:
                return CODEC_ERR_INTERNAL;
        }
    }

    void Close() noexcept override { Release(); }

    void Release() noexcept {
        if (live_ == Live::kDeflate) deflateEnd(&stream_);
        if (live_ == Live::kInflate) inflateEnd(&stream_);
        live_ = Live::kNone;
    }

    const int window_bits_;
    z_stream stream_{};
    Live live_ = Live::kNone;
};

struct ZlibModule {
    static constexpr const char* kAnnounced[] = {kWrappings[1].fkey, kWrappings[2].fkey, nullptr};
    static const char* Version() { return zlibVersion(); }
    static std::unique_ptr<codec::Stream> Create(const char* fkey, int& error) {
        for (const Wrapping& wrapping : kWrappings) {
            if (std::strcmp(fkey, wrapping.fkey) == 0) {
                return std::make_unique<ZlibStream>(wrapping.window_bits);
            }
        }
        error = CODEC_ERR_FKEY;
        return nullptr;
    }
};

}  // namespace

const tarnet_export_table_v2* TARNET_GetPluginInterface_V2(void) {
    return codec::ModuleTable<ZlibModule>::Get();
}
