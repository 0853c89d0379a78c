// One line on a terminal that shows how far the work is; silent anywhere else.
#ifndef HOST_PROGRESS_H
#define HOST_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>

namespace host {

class Progress {
  public:
    explicit Progress(bool wanted);
    ~Progress() { Clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Start(const std::string& label, std::uint64_t total_bytes);
    void Add(std::uint64_t bytes);
    // Takes the line away, so that other output starts on a clean one.
    void Clear();

  private:
    using Clock = std::chrono::steady_clock;

    const bool shown_;
    bool line_open_ = false;
    std::string label_;
    std::uint64_t total_ = 0;
    std::uint64_t done_ = 0;
    Clock::time_point next_{};
};

}  // namespace host

#endif
