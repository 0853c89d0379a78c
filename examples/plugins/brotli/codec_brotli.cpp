// codec.brotli. The format has no check sum.
#include <brotli/decode.h>
#include <brotli/encode.h>

#include <cstdio>
#include <memory>

#include "plugins/common/codec_module.h"

namespace {

// The library's own default is the slowest of its levels.
constexpr uint32_t kDefaultQuality = 5;

struct DestroyEncoder {
    void operator()(BrotliEncoderState* state) const { BrotliEncoderDestroyInstance(state); }
};
struct DestroyDecoder {
    void operator()(BrotliDecoderState* state) const { BrotliDecoderDestroyInstance(state); }
};

class BrotliStream final : public codec::Stream {
    int Open(int level) override {
        if (!compressing()) {
            decoder_.reset(BrotliDecoderCreateInstance(nullptr, nullptr, nullptr));
            return decoder_ ? CODEC_OK : CODEC_ERR_OUT_OF_MEMORY;
        }
        uint32_t quality = kDefaultQuality;
        if (level == CODEC_LEVEL_MAX) {
            quality = BROTLI_MAX_QUALITY;
        } else if (level != CODEC_LEVEL_DEFAULT) {
            quality = static_cast<uint32_t>(level);
        }
        encoder_.reset(BrotliEncoderCreateInstance(nullptr, nullptr, nullptr));
        if (!encoder_) return CODEC_ERR_OUT_OF_MEMORY;
        const BROTLI_BOOL set =
            BrotliEncoderSetParameter(encoder_.get(), BROTLI_PARAM_QUALITY, quality);
        return set != BROTLI_FALSE ? CODEC_OK : CODEC_ERR_INTERNAL;
    }

    int Step(codec::Window& window, bool finish) override {
        return compressing() ? Compress(window, finish) : Decompress(window);
    }

    void Close() noexcept override {
        encoder_.reset();
        decoder_.reset();
    }

    int Compress(codec::Window& window, bool finish) {
        std::size_t in_left = window.in_left();
        std::size_t out_left = window.out_left();
        const uint8_t* in = window.in();
        uint8_t* out = window.out();
        const BROTLI_BOOL good = BrotliEncoderCompressStream(
            encoder_.get(), finish ? BROTLI_OPERATION_FINISH : BROTLI_OPERATION_PROCESS, &in_left,
            &in, &out_left, &out, nullptr);
        if (good == BROTLI_FALSE) return CODEC_ERR_INTERNAL;
        window.Consume(window.in_left() - in_left);
        window.Produce(window.out_left() - out_left);
        return BrotliEncoderIsFinished(encoder_.get()) != BROTLI_FALSE ? CODEC_DONE : CODEC_OK;
    }

    int Decompress(codec::Window& window) {
        std::size_t in_left = window.in_left();
        std::size_t out_left = window.out_left();
        const uint8_t* in = window.in();
        uint8_t* out = window.out();
        const BrotliDecoderResult result =
            BrotliDecoderDecompressStream(decoder_.get(), &in_left, &in, &out_left, &out, nullptr);
        window.Consume(window.in_left() - in_left);
        window.Produce(window.out_left() - out_left);
        if (result == BROTLI_DECODER_RESULT_ERROR) return Failure();
        return result == BROTLI_DECODER_RESULT_SUCCESS ? CODEC_DONE : CODEC_OK;
    }

    int Failure() const {
        const BrotliDecoderErrorCode code = BrotliDecoderGetErrorCode(decoder_.get());
        const bool no_memory = code <= BROTLI_DECODER_ERROR_ALLOC_CONTEXT_MODES &&
                               code >= BROTLI_DECODER_ERROR_ALLOC_BLOCK_TYPE_TREES;
        return no_memory ? CODEC_ERR_OUT_OF_MEMORY : CODEC_ERR_CORRUPT;
    }

    std::unique_ptr<BrotliEncoderState, DestroyEncoder> encoder_;
    std::unique_ptr<BrotliDecoderState, DestroyDecoder> decoder_;
};

struct BrotliModule {
    static constexpr const char* kAnnounced[] = {nullptr};
    static const char* Version() {
        static char text[32];
        const uint32_t version = BrotliEncoderVersion();
        std::snprintf(text, sizeof text, "%u.%u.%u", version >> 24, (version >> 12) & 0xFFFU,
                      version & 0xFFFU);
        return text;
    }
    static std::unique_ptr<codec::Stream> Create(const char*, int&) {
        return std::make_unique<BrotliStream>();
    }
};

}  // namespace

const tarnet_export_table_v2* TARNET_GetPluginInterface_V2(void) {
    return codec::ModuleTable<BrotliModule>::Get();
}
