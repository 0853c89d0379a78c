/*
 * codec.h: one C interface for every compression plug-in of the example host.
 *
 * A codec plug-in answers the ikey CODEC_STREAM_IKEY with a pointer to a codec_stream. One
 * instance is one stream: it compresses or decompresses one piece of data after another,
 * each opened with begin and read to its end with process.
 *
 *     codec_stream* stream = ...;               (VESSA_QueryInterface with CODEC_STREAM_IKEY)
 *     result = stream->begin(stream, CODEC_COMPRESS, 0);
 *     while (result == CODEC_OK) {
 *         (fill in, and say with finish whether it holds the last of the data)
 *         result = stream->process(stream, in, in_len, &consumed, out, out_cap, &produced,
 *                                  finish);
 *         (write out what was produced, keep in what was not consumed)
 *     }
 *     stream->end(stream);                      (CODEC_DONE: all of it went through)
 *
 * Laws that hold for every operation
 *
 *  1. Threads. Different instances may be used on different threads at once. One instance
 *     must not be used on two threads at once; it may move from one to another.
 *  2. Ownership. The interface belongs to the plug-in and dies with its instance. Buffers
 *     belong to the caller; no pointer to them is kept after the call. in and out of one
 *     call must not overlap.
 *  3. Results. One of CODEC_RESULT_LIST; below zero is a failure. Nothing is thrown.
 *  4. After a failure every process returns CODEC_ERR_STATE until the next begin. What was
 *     produced before the failure must not be trusted.
 *  5. Damaged input is a failure with a result of its own, never a crash and never an
 *     endless loop (see process). A format that carries no check sum of its own may decode
 *     damaged input to other data without noticing: the list files say which one has none.
 */
#ifndef CODEC_CODEC_H
#define CODEC_CODEC_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CODEC_STREAM_IKEY "codec.stream/1"

/* Name, number, meaning. The numbers below zero are also what a codec module gives as
 * plugin_error when its create or query fails. */
#define CODEC_RESULT_LIST(X)                                                        \
    X(CODEC_OK, 0, "success; the stream goes on")                                   \
    X(CODEC_DONE, 1, "success; the stream is complete")                             \
    X(CODEC_ERR_ARGUMENT, -2, "bad argument")                                       \
    X(CODEC_ERR_STATE, -3, "no stream was begun, or it has failed already")         \
    X(CODEC_ERR_OUT_OF_MEMORY, -4, "out of memory")                                 \
    X(CODEC_ERR_CORRUPT, -5, "the compressed data is damaged or of another form")   \
    X(CODEC_ERR_TRUNCATED, -6, "the compressed data ends too early")                \
    X(CODEC_ERR_CHECKSUM, -7, "the decompressed data does not match its check sum") \
    X(CODEC_ERR_NO_INTERFACE, -8, "the plug-in has no interface of this name")      \
    X(CODEC_ERR_FKEY, -9, "the module does not serve this fkey")                    \
    X(CODEC_ERR_BASE, -10, "the codec that this one is built on cannot be used")    \
    X(CODEC_ERR_INTERNAL, -11, "the compression library failed")

enum codec_result {
#define CODEC_RESULT_ENUMERATOR(name, number, meaning) name = number,
    CODEC_RESULT_LIST(CODEC_RESULT_ENUMERATOR)
#undef CODEC_RESULT_ENUMERATOR
        CODEC_RESULT_FORCE_INT = 2147483647 /* not a result: keeps the type at 32 bits */
};

/* What a stream does. */
#define CODEC_COMPRESS 1
#define CODEC_DECOMPRESS 2

/* One scale of effort for all codecs: 1 is the fastest, 9 the smallest result; each codec
 * maps it onto its own. 0 leaves the choice to the codec. */
#define CODEC_LEVEL_DEFAULT 0
#define CODEC_LEVEL_MAX 9

typedef struct codec_stream codec_stream;

struct codec_stream {
    /*
     * Opens a stream; one that is still open is dropped first.
     *
     * mode   CODEC_COMPRESS or CODEC_DECOMPRESS.
     * level  0 to CODEC_LEVEL_MAX; checked but of no effect with CODEC_DECOMPRESS.
     *
     * CODEC_OK                 open.
     * CODEC_ERR_ARGUMENT       mode or level out of range; nothing is open.
     * CODEC_ERR_OUT_OF_MEMORY, CODEC_ERR_INTERNAL
     *                          nothing is open.
     */
    int (*begin)(codec_stream* self, int mode, int level);

    /*
     * Takes input and gives output, as much of both as fits.
     *
     * in, in_len     the next input; in may be null with in_len 0.
     * consumed       receives how many bytes of it were taken. The rest has to be offered
     *                again, at the start of the next call's input.
     * out, out_cap   where output goes; out may be null with out_cap 0.
     * produced       receives how many bytes were written there.
     * finish         not 0: nothing follows this input. Once said it holds until the end of
     *                the stream.
     *
     * CODEC_OK       call again: with room for output if produced equals out_cap, otherwise
     *                with more input, or with finish and what is left of the input.
     *                A call with room for output and with input or finish never returns
     *                CODEC_OK without having taken or given a byte, so the loop ends.
     * CODEC_DONE     complete. Compressing: all input was taken and all output was given.
     *                Decompressing: the end of the compressed data was reached; what was not
     *                consumed does not belong to it and was not looked at. Further calls
     *                return CODEC_DONE and do nothing.
     * CODEC_ERR_TRUNCATED   finish was said and the compressed data is not complete.
     * CODEC_ERR_CORRUPT, CODEC_ERR_CHECKSUM, CODEC_ERR_OUT_OF_MEMORY, CODEC_ERR_INTERNAL
     *                as they say.
     * CODEC_ERR_ARGUMENT    consumed or produced null, or a null buffer with a length. The
     *                stream stays as it was.
     * CODEC_ERR_STATE       law 4, or no begin came before.
     */
    int (*process)(codec_stream* self, const void* in, size_t in_len, size_t* consumed, void* out,
                   size_t out_cap, size_t* produced, int finish);

    /* Closes the stream, complete or not, and gives its working memory back. Without an open
     * stream it does nothing. Destroying the instance closes its stream too. */
    void (*end)(codec_stream* self);
};

#ifdef __cplusplus
}
#endif

#endif
