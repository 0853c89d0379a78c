#include "Tracing.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <system_error>
#include <vector>

namespace faults {
namespace {

// What both sides wait with between two looks: a call that none of the failing ones is.
void Pause() {
    constexpr long kPauseNs = 100000;
    const timespec pause{0, kPauseNs};
    nanosleep(&pause, nullptr);
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

bool IsTraced(pid_t process) {
    const std::string status = ReadFile("/proc/" + std::to_string(process) + "/status");
    const std::string name = "TracerPid:\t";
    const size_t at = status.find(name);
    return at != std::string::npos && status[at + name.size()] != '0';
}

}  // namespace

Tracing::Tracing() {
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
    shared_ = new (memory) Shared{};
    file_ = (std::filesystem::temp_directory_path() / "vessa-strace-XXXXXX").string();
    const int file = mkstemp(file_.data());
    if (file < 0) throw std::system_error(errno, std::generic_category(), "mkstemp");
    close(file);
}

Tracing::~Tracing() {
    unlink(file_.c_str());
    munmap(shared_, sizeof(Shared));
}

void Tracing::Prepare(const std::string& calls, const std::string& injection) {
    calls_ = calls;
    injection_ = injection;
}

long Tracing::Ask(Request request) {
    shared_->request.store(request);
    while (shared_->request.load() != kNone) Pause();
    return shared_->answer.load();
}

void Tracing::Answer(long answer) {
    shared_->answer.store(answer);
    shared_->request.store(kNone);
}

void Tracing::AwaitTracer() {
    // Where only ancestors may trace.
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
    Ask(kReady);
}

long Tracing::CountFailed() {
    return Ask(kCount);
}

void Tracing::StopTracer() {
    Ask(kStop);
}

int Tracing::Serve(pid_t child) {
    int status = 0;
    for (;;) {
        const pid_t ended = waitpid(child, &status, WNOHANG);
        if (ended == child) break;
        switch (shared_->request.load()) {
            case kReady:
                StartTracer(child);
                Answer(0);
                break;
            case kCount: {
                const std::string text = Text();
                long count = 0;
                for (size_t at = 0; (at = text.find("(INJECTED)", at)) != std::string::npos; ++at)
                    ++count;
                Answer(count);
                break;
            }
            case kStop:
                EndTracer(SIGTERM);
                Answer(0);
                break;
            default:
                Pause();
        }
    }
    EndTracer(SIGTERM);
    shared_->request.store(kNone);
    return status;
}

void Tracing::StartTracer(pid_t child) {
    const std::string process = std::to_string(child);
    const std::string trace = "trace=" + calls_;
    const std::string inject = "inject=" + injection_;
    std::vector<const char*> words = {"strace",      "-f", "-qq",        "-o",
                                      file_.c_str(), "-e", trace.c_str()};
    if (!injection_.empty()) words.insert(words.end(), {"-e", inject.c_str()});
    words.insert(words.end(), {"-e", "signal=none", "-p", process.c_str(), nullptr});
    tracer_ = fork();
    if (tracer_ == 0) {
        execvp(words[0], const_cast<char* const*>(words.data()));
        _exit(127);
    }
    while (!IsTraced(child)) {
        if (TracerEnded()) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
            shared_->request.store(kNone);
            throw CannotTrace("strace cannot trace a process here");
        }
        Pause();
    }
}

bool Tracing::TracerEnded() {
    if (tracer_ < 0) return true;
    if (waitpid(tracer_, nullptr, WNOHANG) != tracer_) return false;
    tracer_ = -1;
    return true;
}

void Tracing::EndTracer(int signal) {
    if (TracerEnded()) return;
    kill(tracer_, signal);
    while (waitpid(tracer_, nullptr, 0) < 0 && errno == EINTR) {
    }
    tracer_ = -1;
}

std::string Tracing::Text() const {
    return ReadFile(file_);
}

}  // namespace faults
