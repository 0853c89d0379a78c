// codec.lz4: the LZ4 frame format, with a check sum over the content.
#include <lz4frame.h>
#include <lz4hc.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "plugins/common/codec_module.h"

namespace {

// The frame compressor wants room for its worst case at once, so it works in pieces into a
// buffer of ours, and the caller's buffer may be of any size.
constexpr std::size_t kPieceBytes = 64 * 1024;

struct FreeCompressor {
    void operator()(LZ4F_cctx* context) const { LZ4F_freeCompressionContext(context); }
};
struct FreeDecompressor {
    void operator()(LZ4F_dctx* context) const { LZ4F_freeDecompressionContext(context); }
};

class Lz4Stream final : public codec::Stream {
    int Open(int level) override {
        if (compressing()) return OpenCompressor(level);
        LZ4F_dctx* context = nullptr;
        if (LZ4F_isError(LZ4F_createDecompressionContext(&context, LZ4F_VERSION)) != 0) {
            return CODEC_ERR_OUT_OF_MEMORY;
        }
        decompressor_.reset(context);
        return CODEC_OK;
    }

    int Step(codec::Window& window, bool finish) override {
        return compressing() ? Compress(window, finish) : Decompress(window);
    }

    void Close() noexcept override {
        compressor_.reset();
        decompressor_.reset();
        pending_ = std::vector<unsigned char>();
        pending_begin_ = pending_end_ = 0;
    }

    int OpenCompressor(int level) {
        LZ4F_preferences_t preferences{};
        preferences.frameInfo.contentChecksumFlag = LZ4F_contentChecksumEnabled;
        // Up to 2 the fast compressor works, from 3 on the thorough one with its own levels.
        preferences.compressionLevel = level < 3 ? 0 : level;
        if (level == CODEC_LEVEL_MAX) preferences.compressionLevel = LZ4HC_CLEVEL_MAX;
        pending_.resize(std::max(LZ4F_compressBound(kPieceBytes, &preferences),
                                 static_cast<std::size_t>(LZ4F_HEADER_SIZE_MAX)));
        LZ4F_cctx* context = nullptr;
        if (LZ4F_isError(LZ4F_createCompressionContext(&context, LZ4F_VERSION)) != 0) {
            return CODEC_ERR_OUT_OF_MEMORY;
        }
        compressor_.reset(context);
        ended_ = false;
        return Fill(LZ4F_compressBegin(context, pending_.data(), pending_.size(), &preferences));
    }

    // What the compressor wrote into the empty buffer, or its error.
    int Fill(std::size_t written_or_error) {
        if (LZ4F_isError(written_or_error) != 0) return CODEC_ERR_INTERNAL;
        pending_begin_ = 0;
        pending_end_ = written_or_error;
        return CODEC_OK;
    }

    int Compress(codec::Window& window, bool finish) {
        for (;;) {
            const std::size_t count = std::min(pending_end_ - pending_begin_, window.out_left());
            std::copy_n(pending_.data() + pending_begin_, count, window.out());
            window.Produce(count);
            pending_begin_ += count;
            if (pending_begin_ != pending_end_) return CODEC_OK;
            if (ended_) return CODEC_DONE;

            int result = CODEC_OK;
            if (window.in_left() != 0) {
                const std::size_t piece = std::min(window.in_left(), kPieceBytes);
                result = Fill(LZ4F_compressUpdate(compressor_.get(), pending_.data(),
                                                  pending_.size(), window.in(), piece, nullptr));
                window.Consume(piece);
            } else if (finish) {
                result = Fill(
                    LZ4F_compressEnd(compressor_.get(), pending_.data(), pending_.size(), nullptr));
                ended_ = true;
            } else {
                return CODEC_OK;
            }
            if (result != CODEC_OK) return result;
        }
    }

    int Decompress(codec::Window& window) {
        std::size_t in_count = window.in_left();
        std::size_t out_count = window.out_left();
        const std::size_t hint = LZ4F_decompress(decompressor_.get(), window.out(), &out_count,
                                                 window.in(), &in_count, nullptr);
        if (LZ4F_isError(hint) != 0) return CODEC_ERR_CORRUPT;
        window.Consume(in_count);
        window.Produce(out_count);
        return hint == 0 ? CODEC_DONE : CODEC_OK;
    }

    std::unique_ptr<LZ4F_cctx, FreeCompressor> compressor_;
    std::unique_ptr<LZ4F_dctx, FreeDecompressor> decompressor_;
    std::vector<unsigned char> pending_;
    std::size_t pending_begin_ = 0;
    std::size_t pending_end_ = 0;
    bool ended_ = false;
};

struct Lz4Module {
    static constexpr const char* kAnnounced[] = {nullptr};
    static const char* Version() { return LZ4_versionString(); }
    static std::unique_ptr<codec::Stream> Create(const char*, int&) {
        return std::make_unique<Lz4Stream>();
    }
};

}  // namespace

const tarnet_export_table_v2* TARNET_GetPluginInterface_V2(void) {
    return codec::ModuleTable<Lz4Module>::Get();
}
