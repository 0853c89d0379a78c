#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include "support/Child.h"

namespace vessa_test {
namespace {

using Clock = std::chrono::steady_clock;

void Check(int error, const std::string& what) {
    if (error != 0) throw std::system_error(error, std::generic_category(), what);
}

class Descriptor {
  public:
    explicit Descriptor(int number = -1) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Descriptor() { Close(); }
    int Get() const { return number_; }
    void Close() {
        if (number_ >= 0) close(number_);
        number_ = -1;
    }

  private:
    int number_;
};

struct Pipe {
    Descriptor read;
    Descriptor write;

    Pipe() {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0) Check(errno, "pipe2");
        read = Descriptor(ends[0]);
        write = Descriptor(ends[1]);
        // The child may be gone while something that it started still holds the other end.
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
    }
};

// Takes what is there. False at the end of the pipe.
bool ReadAvailable(int descriptor, std::string& text) {
    std::array<char, 4096> buffer{};
    for (;;) {
        const ssize_t got = read(descriptor, buffer.data(), buffer.size());
        if (got > 0) {
            text.append(buffer.data(), static_cast<std::size_t>(got));
        } else if (got == 0) {
            return false;
        } else if (errno != EINTR) {
            return errno == EAGAIN;
        }
    }
}

std::vector<std::string> Environment(const ChildOptions& options) {
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string text = *variable;
        if (options.environment.count(text.substr(0, text.find('='))) == 0)
            variables.push_back(text);
    }
    for (const auto& [name, value] : options.environment) {
        if (value) variables.push_back(name + "=" + *value);
    }
    return variables;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

// What posix_spawn is to do in the child before the program starts.
class SpawnPlan {
  public:
    SpawnPlan(const ChildOptions& options, const Pipe& out, const Pipe& err) {
        posix_spawn_file_actions_init(&actions_);
        posix_spawnattr_init(&attributes_);
        posix_spawn_file_actions_addopen(&actions_, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions_, out.write.Get(), 1);
        posix_spawn_file_actions_adddup2(&actions_, err.write.Get(), 2);
        if (!options.folder.empty())
            posix_spawn_file_actions_addchdir_np(&actions_, options.folder.c_str());
        // A group of its own, so that the watchdog reaches what the child started.
        posix_spawnattr_setpgroup(&attributes_, 0);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETPGROUP);
    }
    ~SpawnPlan() {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    pid_t Start(const ChildOptions& options) {
        std::vector<std::string> arguments = options.arguments;
        arguments.insert(arguments.begin(), options.program);
        std::vector<std::string> environment = Environment(options);
        pid_t pid = 0;
        Check(posix_spawn(&pid, options.program.c_str(), &actions_, &attributes_,
                          Pointers(arguments).data(), Pointers(environment).data()),
              options.program);
        return pid;
    }

  private:
    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attributes_;
};

// Collects both outputs until the child has ended and they are closed or drained. False: the
// time was up.
bool Follow(int child, const Pipe& out, const Pipe& err, Clock::time_point end,
            ChildResult& result) {
    std::array<pollfd, 3> watched{};
    watched[0] = {out.read.Get(), POLLIN, 0};
    watched[1] = {err.read.Get(), POLLIN, 0};
    watched[2] = {child, POLLIN, 0};
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0) return false;
        const int ready = poll(watched.data(), watched.size(), static_cast<int>(left) + 1);
        if (ready < 0 && errno != EINTR) Check(errno, "poll");
        if (ready <= 0) continue;
        // Looked at before the outputs: what the child wrote is all there once it has ended.
        const bool ended = (watched[2].revents & POLLIN) != 0;
        if (watched[0].fd >= 0 && !ReadAvailable(watched[0].fd, result.out)) watched[0].fd = -1;
        if (watched[1].fd >= 0 && !ReadAvailable(watched[1].fd, result.err)) watched[1].fd = -1;
        if (ended) return true;
    }
}

}  // namespace

ChildResult RunChild(const ChildOptions& options) {
    ChildResult result;
    Pipe out;
    Pipe err;
    const Clock::time_point end = Clock::now() + options.watchdog;
    const pid_t pid = SpawnPlan(options, out, err).Start(options);
    out.write.Close();
    err.write.Close();
    const Descriptor child(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    if (child.Get() < 0) {
        const int error = errno;
        kill(-pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        Check(error, "pidfd_open");
    }
    result.hung = !Follow(child.Get(), out, err, end, result);
    if (result.hung) kill(-pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    ReadAvailable(out.read.Get(), result.out);
    ReadAvailable(err.read.Get(), result.err);
    if (WIFEXITED(status)) result.exit_status = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    return result;
}

bool ChildResult::Crashed() const {
    return !hung && signal != 0;
}

std::string ChildResult::End() const {
    if (hung) return "hung";
    if (signal == 0) return "exit status " + std::to_string(exit_status);
    return "signal " + std::to_string(signal) + " (" + sigdescr_np(signal) + ")";
}

std::string OwnProgram() {
    return std::filesystem::read_symlink("/proc/self/exe").string();
}

}  // namespace vessa_test
