// What every codec module written in C++ shares: the state of a stream and the table of
// operations, so that a module only says how its compression library is called.
#ifndef CODEC_MODULE_H
#define CODEC_MODULE_H

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include "codec/codec.h"
#include "vessa/tarnet.h"

namespace codec {

// Nothing may be thrown across the plug-in boundary.
template <typename Work>
int Guarded(Work&& work) noexcept {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        return CODEC_ERR_OUT_OF_MEMORY;
    } catch (...) {
        return CODEC_ERR_INTERNAL;
    }
}

// Input and output of one process call; the codec moves both cursors forward.
class Window {
  public:
    Window(const void* in, std::size_t in_len, void* out, std::size_t out_cap)
        : in_(static_cast<const unsigned char*>(in)),
          in_left_(in_len),
          out_(static_cast<unsigned char*>(out)),
          out_left_(out_cap) {}

    const unsigned char* in() const { return in_; }
    std::size_t in_left() const { return in_left_; }
    unsigned char* out() const { return out_; }
    std::size_t out_left() const { return out_left_; }

    void Consume(std::size_t count) {
        if (count == 0) return;
        in_ += count;
        in_left_ -= count;
    }
    void Produce(std::size_t count) {
        if (count == 0) return;
        out_ += count;
        out_left_ -= count;
    }

  private:
    const unsigned char* in_;
    std::size_t in_left_;
    unsigned char* out_;
    std::size_t out_left_;
};

// One instance of a codec.
// Thread safety: none needed, an instance is used by one thread at a time.
// Invariants: the compression library's state exists only while state_ is kOpen.
class Stream : public codec_stream {
  public:
    Stream() : codec_stream{BeginThunk, ProcessThunk, EndThunk} {}
    virtual ~Stream() = default;
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

  protected:
    bool compressing() const { return mode_ == CODEC_COMPRESS; }

    // Sets the library up; called with the old state released.
    virtual int Open(int level) = 0;
    // Goes on as far as the window allows. CODEC_DONE only when nothing is held back. It need
    // not tell a call that cannot go on from one that can: Process sees that by the cursors.
    virtual int Step(Window& window, bool finish) = 0;
    // Releases the library's state; also called when there is none.
    virtual void Close() noexcept = 0;

  private:
    enum class State { kClosed, kOpen, kDone };

    static Stream* Self(codec_stream* self) { return static_cast<Stream*>(self); }

    static int BeginThunk(codec_stream* self, int mode, int level) noexcept {
        return Self(self)->Begin(mode, level);
    }
    static int ProcessThunk(codec_stream* self, const void* in, std::size_t in_len,
                            std::size_t* consumed, void* out, std::size_t out_cap,
                            std::size_t* produced, int finish) noexcept {
        if (consumed == nullptr || produced == nullptr) return CODEC_ERR_ARGUMENT;
        *consumed = 0;
        *produced = 0;
        if ((in == nullptr && in_len != 0) || (out == nullptr && out_cap != 0)) {
            return CODEC_ERR_ARGUMENT;
        }
        Window window(in, in_len, out, out_cap);
        const int result = Self(self)->Process(window, in_len, out_cap, finish != 0);
        *consumed = in_len - window.in_left();
        *produced = out_cap - window.out_left();
        return result;
    }
    static void EndThunk(codec_stream* self) noexcept { Self(self)->Drop(State::kClosed); }

    void Drop(State next) noexcept {
        Close();
        state_ = next;
    }

    int Begin(int mode, int level) noexcept {
        Drop(State::kClosed);
        if ((mode != CODEC_COMPRESS && mode != CODEC_DECOMPRESS) || level < 0 ||
            level > CODEC_LEVEL_MAX) {
            return CODEC_ERR_ARGUMENT;
        }
        mode_ = mode;
        finishing_ = false;
        const int result = Guarded([&] { return Open(level); });
        if (result != CODEC_OK) {
            Close();
            return result;
        }
        state_ = State::kOpen;
        return CODEC_OK;
    }

    int Process(Window& window, std::size_t in_len, std::size_t out_cap, bool finish) noexcept {
        if (state_ == State::kDone) return CODEC_DONE;
        if (state_ == State::kClosed) return CODEC_ERR_STATE;
        finishing_ = finishing_ || finish;
        int result = Guarded([&] { return Step(window, finishing_); });
        const bool stuck = window.in_left() == in_len && window.out_left() == out_cap;
        if (result == CODEC_OK && stuck && out_cap != 0 && (in_len != 0 || finishing_)) {
            // Room, and either input or the promise that none follows, and still no byte has
            // moved: it never will.
            result = !compressing() && in_len == 0 ? CODEC_ERR_TRUNCATED : CODEC_ERR_INTERNAL;
        }
        if (result != CODEC_OK) Drop(result == CODEC_DONE ? State::kDone : State::kClosed);
        return result;
    }

    State state_ = State::kClosed;
    int mode_ = CODEC_COMPRESS;
    bool finishing_ = false;
};

// The operations of a module. Module has
//     static std::unique_ptr<Stream> Create(const char* fkey, int& error);
//     static const char* Version();
//     static constexpr const char* kAnnounced[], its further fkeys, ended by a null pointer.
template <typename Module>
struct ModuleTable {
    static int Init() noexcept { return CODEC_OK; }
    static int Uninit() noexcept { return CODEC_OK; }

    static int Create(const char* fkey, void** instance) noexcept {
        return Guarded([&] {
            int error = CODEC_ERR_INTERNAL;
            std::unique_ptr<Stream> stream = Module::Create(fkey, error);
            if (!stream) return error;
            *instance = stream.release();
            return static_cast<int>(CODEC_OK);
        });
    }

    static int Destroy(void* instance) noexcept {
        delete static_cast<Stream*>(instance);
        return CODEC_OK;
    }

    static int Query(void* instance, const char* ikey, void** iface) noexcept {
        if (std::strcmp(ikey, CODEC_STREAM_IKEY) != 0) return CODEC_ERR_NO_INTERFACE;
        *iface = static_cast<codec_stream*>(static_cast<Stream*>(instance));
        return CODEC_OK;
    }

    static const char** Ikeys() noexcept {
        static const char* ikeys[] = {CODEC_STREAM_IKEY, nullptr};
        return ikeys;
    }

    static const char* Version() noexcept { return Module::Version(); }

    static int MapFkeys(char (*fkeys)[TARNET_FKEY_SIZE], int* count) noexcept {
        int filled = 0;
        for (const char* const* fkey = Module::kAnnounced; *fkey != nullptr; ++fkey) {
            if (fkeys != nullptr) {
                if (filled == *count) break;
                std::strncpy(fkeys[filled], *fkey, TARNET_FKEY_SIZE - 1);
            }
            ++filled;
        }
        *count = filled;
        return CODEC_OK;
    }

    static const tarnet_export_table_v2* Get() noexcept {
        static const tarnet_export_table_v2 table = {Init,  Uninit, Create,  Destroy,
                                                     Query, Ikeys,  Version, MapFkeys};
        return &table;
    }
};

}  // namespace codec

#endif
