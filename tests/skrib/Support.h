// What the tests of the logging library share: a folder of one's own, a run of the child
// program, a gate for threads.
#pragma once

#include <fcntl.h>
#include <regex.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace skrib_test {

class TemporaryFolder {
  public:
    TemporaryFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "skrib-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary folder");
        path_ = name;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string operator/(const std::string& name) const { return (path_ / name).string(); }

  private:
    std::filesystem::path path_;
};

inline std::string Contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

// What the extended regular expression found and its groups; empty: nothing.
inline std::vector<std::string> Match(const std::string& pattern, const std::string& text) {
    regex_t compiled;
    if (regcomp(&compiled, pattern.c_str(), REG_EXTENDED) != 0) {
        throw std::invalid_argument(pattern);
    }
    std::vector<regmatch_t> found(compiled.re_nsub + 1);
    std::vector<std::string> parts;
    if (regexec(&compiled, text.c_str(), found.size(), found.data(), 0) == 0) {
        for (const regmatch_t& part : found) {
            parts.push_back(text.substr(static_cast<std::size_t>(part.rm_so),
                                        static_cast<std::size_t>(part.rm_eo - part.rm_so)));
        }
    }
    regfree(&compiled);
    return parts;
}

struct Outcome {
    int status = -1;  // of the exit; -1: ended otherwise
    pid_t process = 0;
    std::string out;
    std::string err;
};

// Runs a program to its end with only that environment (and the sanitizers' settings).
// err_path: where its standard error goes, if not to the outcome.
inline Outcome Run(const std::string& program, const std::vector<std::string>& arguments,
                   std::vector<std::string> environment = {}, const std::string& err_path = "") {
    const TemporaryFolder folder;
    const std::string out = folder / "out";
    const std::string err = err_path.empty() ? folder / "err" : err_path;
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS"}) {
        if (const char* value = std::getenv(name)) {
            environment.push_back(std::string(name) + "=" + value);
        }
    }
    const auto pointers = [](const std::vector<std::string>& texts) {
        std::vector<char*> result;
        for (const std::string& text : texts) result.push_back(const_cast<char*>(text.c_str()));
        result.push_back(nullptr);
        return result;
    };
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT, 0600);
    posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT, 0600);
    Outcome outcome;
    const int failed = posix_spawn(&outcome.process, program.c_str(), &files, nullptr,
                                   pointers(words).data(), pointers(environment).data());
    posix_spawn_file_actions_destroy(&files);
    if (failed != 0) throw std::runtime_error("cannot start " + program);
    int status = 0;
    if (waitpid(outcome.process, &status, 0) == outcome.process && WIFEXITED(status)) {
        outcome.status = WEXITSTATUS(status);
    }
    outcome.out = Contents(out);
    if (err_path.empty()) outcome.err = Contents(err);
    return outcome;
}

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
