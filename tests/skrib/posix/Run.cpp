#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "../Support.h"

namespace skrib_test {

Outcome Run(const std::string& program, const std::vector<std::string>& arguments,
            const std::vector<std::string>& environment, const std::string& err_path) {
    const TemporaryFolder folder;
    const std::string out = folder / "out";
    const std::string err = err_path.empty() ? folder / "err" : err_path;
    std::vector<std::string> variables = environment;
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS"}) {
        if (const char* value = std::getenv(name)) {
            variables.push_back(std::string(name) + "=" + value);
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
    pid_t process = 0;
    const int failed = posix_spawn(&process, program.c_str(), &files, nullptr,
                                   pointers(words).data(), pointers(variables).data());
    posix_spawn_file_actions_destroy(&files);
    if (failed != 0) throw std::runtime_error("cannot start " + program);
    Outcome outcome;
    outcome.thread = std::to_string(process);
    int status = 0;
    if (waitpid(process, &status, 0) == process && WIFEXITED(status)) {
        outcome.status = WEXITSTATUS(status);
    }
    outcome.out = Contents(out);
    if (err_path.empty()) outcome.err = Contents(err);
    return outcome;
}

}  // namespace skrib_test
