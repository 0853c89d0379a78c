// Tracing.h: system calls that fail. The child that lives the scenario is traced by strace, which
// its parent starts when the child is ready and stops when the child asks for it: so the calls are
// numbered from the load of the library on, for each thread from its own begin.
#ifndef VESSA_TESTS_RELIABILITY_FAULTS_TRACING_H
#define VESSA_TESTS_RELIABILITY_FAULTS_TRACING_H

#include <sys/types.h>

#include <atomic>
#include <stdexcept>
#include <string>

namespace faults {

// strace is not there, or may not trace here.
class CannotTrace : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class Tracing {
  public:
    Tracing();
    ~Tracing();
    Tracing(const Tracing&) = delete;
    Tracing& operator=(const Tracing&) = delete;

    // For the next child: the calls that are shown, and, if there is one, the failure, as strace
    // has it: "openat:error=EMFILE:when=3+".
    void Prepare(const std::string& calls, const std::string& injection);

    // In the child.
    void AwaitTracer();
    long CountFailed();
    void StopTracer();

    // In the parent: serves the child to its end and gives its status. Throws CannotTrace.
    int Serve(pid_t child);
    // What strace wrote.
    std::string Text() const;

  private:
    enum Request : int { kNone, kReady, kCount, kStop };
    struct Shared {
        std::atomic<int> request;
        std::atomic<long> answer;
    };

    long Ask(Request request);
    void Answer(long answer);
    void StartTracer(pid_t child);
    void EndTracer(int signal);
    bool TracerEnded();

    Shared* shared_;
    std::string file_;
    std::string calls_;
    std::string injection_;
    pid_t tracer_ = -1;
};

}  // namespace faults

#endif
