/* codec.zstd: one codec in plain C behind a version-1 table. */
#include <stdlib.h>
#include <string.h>
#include <zstd.h>
#include <zstd_errors.h>

#include "codec/codec.h"
#include "vessa/tarnet.h"

/* The instance is the stream; its interface comes first, so one address is both. At most one
 * of the contexts is there; none after begin failed, after the end and after a failure. */
typedef struct zstd_stream {
    codec_stream iface;
    ZSTD_CCtx* compressor;
    ZSTD_DCtx* decompressor;
    int finishing;
    int done;
} zstd_stream;

/* The interface's levels 1 to 9 on the library's scale; 0 is the library's own default. */
static const int kLevels[CODEC_LEVEL_MAX + 1] = {0, 1, 2, 3, 5, 7, 9, 12, 15, 19};

static void ReleaseContexts(zstd_stream* stream) {
    ZSTD_freeCCtx(stream->compressor);
    ZSTD_freeDCtx(stream->decompressor);
    stream->compressor = NULL;
    stream->decompressor = NULL;
}

static void End(codec_stream* self) {
    zstd_stream* stream = (zstd_stream*)self;
    ReleaseContexts(stream);
    stream->finishing = 0;
    stream->done = 0;
}

static int BeginCompress(zstd_stream* stream, int level) {
    stream->compressor = ZSTD_createCCtx();
    if (stream->compressor == NULL) return CODEC_ERR_OUT_OF_MEMORY;
    if (ZSTD_isError(
            ZSTD_CCtx_setParameter(stream->compressor, ZSTD_c_compressionLevel, kLevels[level])) ||
        ZSTD_isError(ZSTD_CCtx_setParameter(stream->compressor, ZSTD_c_checksumFlag, 1))) {
        End(&stream->iface);
        return CODEC_ERR_INTERNAL;
    }
    return CODEC_OK;
}

static int Begin(codec_stream* self, int mode, int level) {
    zstd_stream* stream = (zstd_stream*)self;
    End(self);
    if (level < 0 || level > CODEC_LEVEL_MAX) return CODEC_ERR_ARGUMENT;
    if (mode == CODEC_COMPRESS) return BeginCompress(stream, level);
    if (mode != CODEC_DECOMPRESS) return CODEC_ERR_ARGUMENT;
    stream->decompressor = ZSTD_createDCtx();
    return stream->decompressor != NULL ? CODEC_OK : CODEC_ERR_OUT_OF_MEMORY;
}

static int ResultOf(size_t code) {
    switch (ZSTD_getErrorCode(code)) {
        case ZSTD_error_memory_allocation:
            return CODEC_ERR_OUT_OF_MEMORY;
        case ZSTD_error_checksum_wrong:
            return CODEC_ERR_CHECKSUM;
        default:
            return CODEC_ERR_CORRUPT;
    }
}

static int Compress(zstd_stream* stream, ZSTD_inBuffer* in, ZSTD_outBuffer* out) {
    const size_t left = ZSTD_compressStream2(stream->compressor, out, in,
                                             stream->finishing ? ZSTD_e_end : ZSTD_e_continue);
    if (ZSTD_isError(left)) {
        return ResultOf(left) == CODEC_ERR_OUT_OF_MEMORY ? CODEC_ERR_OUT_OF_MEMORY
                                                         : CODEC_ERR_INTERNAL;
    }
    return stream->finishing && left == 0 && in->pos == in->size ? CODEC_DONE : CODEC_OK;
}

static int Decompress(zstd_stream* stream, ZSTD_inBuffer* in, ZSTD_outBuffer* out) {
    const size_t left = ZSTD_decompressStream(stream->decompressor, out, in);
    if (ZSTD_isError(left)) return ResultOf(left);
    return left == 0 ? CODEC_DONE : CODEC_OK;
}

static int Process(codec_stream* self, const void* in, size_t in_len, size_t* consumed, void* out,
                   size_t out_cap, size_t* produced, int finish) {
    zstd_stream* stream = (zstd_stream*)self;
    const int compressing = stream->compressor != NULL;
    ZSTD_inBuffer in_buffer = {in, in_len, 0};
    ZSTD_outBuffer out_buffer = {out, out_cap, 0};
    int result;

    if (consumed == NULL || produced == NULL) return CODEC_ERR_ARGUMENT;
    *consumed = 0;
    *produced = 0;
    if ((in == NULL && in_len != 0) || (out == NULL && out_cap != 0)) return CODEC_ERR_ARGUMENT;
    if (stream->done) return CODEC_DONE;
    if (!compressing && stream->decompressor == NULL) return CODEC_ERR_STATE;

    stream->finishing = stream->finishing || finish != 0;
    result = compressing ? Compress(stream, &in_buffer, &out_buffer)
                         : Decompress(stream, &in_buffer, &out_buffer);
    *consumed = in_buffer.pos;
    *produced = out_buffer.pos;
    if (result == CODEC_OK && in_buffer.pos == 0 && out_buffer.pos == 0 && out_cap != 0 &&
        (in_len != 0 || stream->finishing)) {
        /* Room, and either input or the promise that none follows, and still no byte has
         * moved: it never will. */
        result = !compressing && in_len == 0 ? CODEC_ERR_TRUNCATED : CODEC_ERR_INTERNAL;
    }
    if (result != CODEC_OK) ReleaseContexts(stream);
    stream->done = result == CODEC_DONE;
    return result;
}

static int ModuleInit(void) {
    return CODEC_OK;
}

static int ModuleUninit(void) {
    return CODEC_OK;
}

static int CreateInstance(void** instance) {
    zstd_stream* stream = calloc(1, sizeof *stream);
    if (stream == NULL) return CODEC_ERR_OUT_OF_MEMORY;
    stream->iface.begin = Begin;
    stream->iface.process = Process;
    stream->iface.end = End;
    *instance = stream;
    return CODEC_OK;
}

static int DestroyInstance(void* instance) {
    zstd_stream* stream = instance;
    ReleaseContexts(stream);
    free(stream);
    return CODEC_OK;
}

static int QueryInterface(void* instance, const char* ikey, void** iface) {
    zstd_stream* stream = instance;
    if (strcmp(ikey, CODEC_STREAM_IKEY) != 0) return CODEC_ERR_NO_INTERFACE;
    *iface = &stream->iface;
    return CODEC_OK;
}

static const char** GetAllInterfaceIkeys(void) {
    static const char* ikeys[] = {CODEC_STREAM_IKEY, NULL};
    return ikeys;
}

static const char* GetFileVersion(void) {
    return ZSTD_versionString();
}

const tarnet_export_table_v1* TARNET_GetPluginInterface(void) {
    static const tarnet_export_table_v1 table = {
        .Init = ModuleInit,
        .Uninit = ModuleUninit,
        .CreateInstance = CreateInstance,
        .DestroyInstance = DestroyInstance,
        .QueryInterface = QueryInterface,
        .GetAllInterfaceIkeys = GetAllInterfaceIkeys,
        .GetFileVersion = GetFileVersion,
    };
    return &table;
}
