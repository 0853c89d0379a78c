// What the tests of the logging library share: a folder of one's own, a run of the child
// program, a gate for threads.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "System.h"

namespace skrib_test {

class TemporaryFolder {
  public:
    TemporaryFolder() {
        std::random_device random;
        do {
            path_ = std::filesystem::temp_directory_path() /
                    ("skrib-test-" + std::to_string(random()) + std::to_string(random()));
        } while (!std::filesystem::create_directory(path_));
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string operator/(const std::string& name) const {
        return (path_ / std::filesystem::u8path(name)).u8string();
    }

  private:
    std::filesystem::path path_;
};

// The text with "\n" at the ends of its lines, whatever the system has there.
inline std::string WithPlainLines(const std::string& text) {
    const std::string line_end = kLineEnd;
    std::string plain;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find(line_end, at), text.size());
        plain.append(text, at, end - at);
        if (end < text.size()) plain += '\n';
        at = end + line_end.size();
    }
    return plain;
}

inline std::string Bytes(const std::string& path) {
    std::ifstream file(std::filesystem::u8path(path), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline std::string Contents(const std::string& path) {
    return WithPlainLines(Bytes(path));
}

inline std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

// What the regular expression found and its groups; empty: nothing.
inline std::vector<std::string> Match(const std::string& pattern, const std::string& text) {
    static std::map<std::string, std::regex> compiled;
    const std::regex& expression = compiled.try_emplace(pattern, pattern).first->second;
    std::smatch found;
    if (!std::regex_search(text, found, expression)) return {};
    return {found.begin(), found.end()};
}

struct Outcome {
    int status = -1;     // of the exit; -1: ended otherwise
    std::string thread;  // its first one's number, as the log shows it
    std::string out;
    std::string err;
};

// Runs a program to its end with only that environment, and what no program of the system can do
// without. err_path: where its standard error goes, if not to the outcome.
Outcome Run(const std::string& program, const std::vector<std::string>& arguments,
            const std::vector<std::string>& environment = {}, const std::string& err_path = "");

// Closed until opened, then open for good.
class Gate {
  public:
    void Open() {
        const std::lock_guard<std::mutex> held(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    void Pass() {
        std::unique_lock<std::mutex> held(mutex_);
        changed_.wait(held, [this] { return open_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
};

// Holds everybody back until that many have come.
class Barrier {
  public:
    explicit Barrier(int count) : missing_(count) {}
    void Arrive() {
        std::unique_lock<std::mutex> held(mutex_);
        if (--missing_ == 0) changed_.notify_all();
        changed_.wait(held, [this] { return missing_ <= 0; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int missing_;
};

}  // namespace skrib_test
