#include "host/roundtrip.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>

namespace host {
namespace {

constexpr std::size_t kChunkBytes = 256 * 1024;
constexpr double kMegabyte = 1e6;

using Bytes = std::vector<unsigned char>;

class Stopwatch {
  public:
    explicit Stopwatch(double& seconds) : seconds_(seconds) {}
    ~Stopwatch() { seconds_ += std::chrono::duration<double>(Clock::now() - start_).count(); }
    Stopwatch(const Stopwatch&) = delete;
    Stopwatch& operator=(const Stopwatch&) = delete;

  private:
    using Clock = std::chrono::steady_clock;
    double& seconds_;
    const Clock::time_point start_ = Clock::now();
};

class FileReader {
  public:
    explicit FileReader(const std::filesystem::path& path) : file_(path, std::ios::binary) {
        if (!file_) throw std::runtime_error("cannot be opened");
    }

    // Up to count bytes; fewer only at the end of the file.
    std::size_t Read(unsigned char* to, std::size_t count) {
        file_.read(reinterpret_cast<char*>(to), static_cast<std::streamsize>(count));
        if (file_.bad()) throw std::runtime_error("cannot be read");
        return static_cast<std::size_t>(file_.gcount());
    }

  private:
    std::ifstream file_;
};

// One codec instance with the buffers that all files share.
class RoundTrip {
  public:
    RoundTrip(codec_stream& stream, int level, Progress& progress,
              const volatile std::sig_atomic_t& stop)
        : stream_(stream), level_(level), progress_(progress), stop_(stop) {}

    // Adds the file to the outcome; throws std::runtime_error if it did not come back.
    void File(const std::filesystem::path& path, Outcome& outcome) {
        compressed_.clear();
        double compress_seconds = 0;
        const std::uint64_t plain_bytes = Compress(path, compress_seconds);
        double decompress_seconds = 0;
        Decompress(path, plain_bytes, decompress_seconds);
        ++outcome.files;
        outcome.plain_bytes += plain_bytes;
        outcome.compressed_bytes += compressed_.size();
        outcome.compress_seconds += compress_seconds;
        outcome.decompress_seconds += decompress_seconds;
    }

  private:
    std::uint64_t Compress(const std::filesystem::path& path, double& seconds) {
        FileReader reader(path);
        std::uint64_t plain_bytes = 0;
        const auto source = [&](unsigned char* to, std::size_t count) {
            const std::size_t got = reader.Read(to, count);
            plain_bytes += got;
            progress_.Add(got);
            return got;
        };
        const auto sink = [&](const unsigned char* data, std::size_t count) {
            compressed_.insert(compressed_.end(), data, data + count);
        };
        const std::size_t left = Pump("compressing", CODEC_COMPRESS, source, sink, seconds);
        if (left != 0) throw std::runtime_error("compressing: the codec left input over");
        return plain_bytes;
    }

    void Decompress(const std::filesystem::path& path, std::uint64_t plain_bytes, double& seconds) {
        FileReader reader(path);
        std::size_t offset = 0;
        std::uint64_t compared = 0;
        const auto source = [&](unsigned char* to, std::size_t count) {
            const std::size_t got = std::min(count, compressed_.size() - offset);
            std::copy_n(compressed_.begin() + static_cast<std::ptrdiff_t>(offset), got, to);
            offset += got;
            return got;
        };
        const auto sink = [&](const unsigned char* data, std::size_t count) {
            if (reader.Read(expected_.data(), count) != count ||
                std::memcmp(expected_.data(), data, count) != 0) {
                throw std::runtime_error(fmt::format(
                    "came back different, in the {} bytes from offset {} on", count, compared));
            }
            compared += count;
            progress_.Add(count);
        };
        const std::size_t left = Pump("decompressing", CODEC_DECOMPRESS, source, sink, seconds);
        if (left != 0 || offset != compressed_.size()) {
            throw std::runtime_error("decompressing: the codec left input over");
        }
        if (compared != plain_bytes) {
            throw std::runtime_error(
                fmt::format("came back with {} of {} bytes", compared, plain_bytes));
        }
    }

    // Moves everything from source to sink through one stream; the bytes that the stream did
    // not take of what source gave.
    template <typename Source, typename Sink>
    std::size_t Pump(const char* what, int mode, const Source& source, const Sink& sink,
                     double& seconds) {
        const StreamEnd stream_end{stream_};
        int result = Timed(seconds, [&] { return stream_.begin(&stream_, mode, level_); });
        std::size_t begin = 0;
        std::size_t end = 0;
        bool finish = false;
        while (result == CODEC_OK) {
            if (stop_ != 0) throw Interrupted{};
            if (begin == end && !finish) {
                begin = 0;
                end = source(in_.data(), in_.size());
                finish = end == 0;
            }
            std::size_t consumed = 0;
            std::size_t produced = 0;
            result = Timed(seconds, [&] {
                return stream_.process(&stream_, in_.data() + begin, end - begin, &consumed,
                                       out_.data(), out_.size(), &produced, finish ? 1 : 0);
            });
            const bool stuck = result == CODEC_OK && consumed == 0 && produced == 0;
            if (stuck || consumed > end - begin || produced > out_.size()) {
                throw std::runtime_error(fmt::format("{}: the codec broke its contract", what));
            }
            if (result >= CODEC_OK && produced != 0) sink(out_.data(), produced);
            begin += consumed;
        }
        if (result != CODEC_DONE) {
            throw std::runtime_error(fmt::format("{}: {}", what, CodecResultText(result)));
        }
        return end - begin;
    }

    struct StreamEnd {
        codec_stream& stream;
        ~StreamEnd() { stream.end(&stream); }
    };

    template <typename Work>
    static int Timed(double& seconds, const Work& work) {
        const Stopwatch watch(seconds);
        return work();
    }

    codec_stream& stream_;
    const int level_;
    Progress& progress_;
    const volatile std::sig_atomic_t& stop_;
    Bytes in_ = Bytes(kChunkBytes);
    Bytes out_ = Bytes(kChunkBytes);
    Bytes expected_ = Bytes(kChunkBytes);
    Bytes compressed_;
};

double Speed(std::uint64_t bytes, double seconds) {
    return seconds > 0 ? static_cast<double>(bytes) / kMegabyte / seconds : 0;
}

}  // namespace

double Outcome::Ratio() const {
    return compressed_bytes == 0
               ? 0
               : static_cast<double>(plain_bytes) / static_cast<double>(compressed_bytes);
}

double Outcome::CompressMegabytesPerSecond() const {
    return Speed(plain_bytes, compress_seconds);
}

double Outcome::DecompressMegabytesPerSecond() const {
    return Speed(plain_bytes, decompress_seconds);
}

Outcome Run(const Key& key, const Corpus& corpus, int level, Progress& progress,
            const volatile std::sig_atomic_t& stop) {
    const Instance instance(key.fkey);
    codec_stream* stream = instance.FindStream();
    if (stream == nullptr) {
        throw std::runtime_error(key.fkey + ": no interface " CODEC_STREAM_IKEY);
    }
    Outcome outcome;
    outcome.key = key;
    progress.Start(key.fkey, 2 * corpus.bytes);
    RoundTrip round_trip(*stream, level, progress, stop);
    for (const std::filesystem::path& path : corpus.files) {
        try {
            round_trip.File(path, outcome);
        } catch (const std::exception& error) {
            outcome.failures.push_back(fmt::format("{}: {}", path.u8string(), error.what()));
        }
    }
    progress.Clear();
    return outcome;
}

}  // namespace host
