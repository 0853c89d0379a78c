#include "host/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace host {

namespace {
constexpr std::chrono::milliseconds kRedrawPeriod{100};
constexpr double kMegabyte = 1e6;
}  // namespace

Progress::Progress(bool wanted) : shown_(wanted && isatty(STDERR_FILENO) == 1) {}

void Progress::Start(const std::string& label, std::uint64_t total_bytes) {
    label_ = label;
    total_ = total_bytes;
    done_ = 0;
    next_ = Clock::time_point{};
    Add(0);
}

void Progress::Add(std::uint64_t bytes) {
    done_ += bytes;
    if (!shown_) return;
    const Clock::time_point now = Clock::now();
    if (now < next_) return;
    next_ = now + kRedrawPeriod;
    const double part =
        total_ == 0 ? 1.0 : std::min(1.0, static_cast<double>(done_) / static_cast<double>(total_));
    fmt::print(stderr, "\r{:<18} {:3.0f} %  {:.1f} of {:.1f} MB\x1b[K", label_, part * 100,
               static_cast<double>(done_) / kMegabyte, static_cast<double>(total_) / kMegabyte);
    std::fflush(stderr);
    line_open_ = true;
}

void Progress::Clear() {
    if (!line_open_) return;
    fmt::print(stderr, "\r\x1b[K");
    std::fflush(stderr);
    line_open_ = false;
}

}  // namespace host
