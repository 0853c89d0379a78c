// Does what its arguments say, one command after the other, and prints what it finds.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "ChildSystem.h"
#include "Support.h"
#include "skrib.h"

namespace {

namespace fs = std::filesystem;

void* late_logger = nullptr;

// Made before main, so destroyed after everything that main has registered for the exit.
struct LateUser {
    ~LateUser() {
        if (late_logger != nullptr) {
            SKRIB_Write(late_logger, 4, "from a destructor", nullptr, nullptr, 0);
            SKRIB_Write(SKRIB_GetLogger("new"), 4, "new and late", nullptr, nullptr, 0);
        }
    }
} late_user;

// Every call must leave errno alone, also one whose file fails.
template <class Call>
auto Checked(Call call) {
    struct Check {
        ~Check() {
            if (errno != EDOM) {
                std::puts("errno changed");
                std::exit(3);
            }
        }
    } const check;
    errno = EDOM;
    return call();
}

const char* OrNull(const std::string& text) {
    return text == "-" ? nullptr : text.c_str();
}

void* LoggerOf(const std::string& name) {
    return Checked([&] { return SKRIB_GetLogger(OrNull(name)); });
}

void WriteFromThreads(const std::string& name, int threads, int records) {
    skrib_test::Barrier start(threads);
    std::vector<std::thread> writers;
    for (int writer = 0; writer < threads; ++writer) {
        writers.emplace_back([&, writer] {
            start.Arrive();
            void* logger = SKRIB_GetLogger(name.c_str());
            const std::string from = "writer " + std::to_string(writer) + " record ";
            for (int i = 0; i < records; ++i) {
                const std::string text = from + std::to_string(i) + std::string(300, '.');
                SKRIB_Write(logger, 4, text.c_str(), "f.cpp", "f", i + 1);
            }
            SKRIB_ReleaseLogger(logger);
        });
    }
    for (std::thread& writer : writers) writer.join();
}

void TakeLoggerFromThreads(const std::string& name, int threads) {
    skrib_test::Barrier start(threads);
    std::vector<void*> loggers(static_cast<std::size_t>(threads));
    std::vector<std::thread> takers;
    for (void*& logger : loggers) {
        takers.emplace_back([&] {
            start.Arrive();
            logger = SKRIB_GetLogger(name.c_str());
        });
    }
    for (std::thread& taker : takers) taker.join();
    bool same = loggers[0] != nullptr;
    for (void* logger : loggers) same = same && logger == loggers[0];
    std::puts(same ? "same" : "different");
}

void Print(void*, const char* logger, int level, const char* text, const char*, const char*, int) {
    std::printf("%s %d %s\n", logger, level, text);
}

void PrintAndWrite(void*, const char* logger, int, const char* text, const char*, const char*,
                   int) {
    std::printf("%s\n", text);
    SKRIB_Write(SKRIB_GetLogger(logger), 5, "written by the receiver", nullptr, nullptr, 0);
}

using Words = std::vector<std::string>;
struct Command {
    std::size_t arguments;
    std::function<void(const Words&)> run;
};

int Number(const std::string& word) {
    return std::atoi(word.c_str());
}

const std::map<std::string, Command>& Commands() {
    static const std::map<std::string, Command> commands{
        {"get", {1, [](const Words& w) { LoggerOf(w[0]); }}},
        {"release",
         {1,
          [](const Words& w) {
              // Twice: the second one is for the logger taken here to get at the handle.
              void* logger = LoggerOf(w[0]);
              Checked([&] { return SKRIB_ReleaseLogger(logger), SKRIB_ReleaseLogger(logger), 0; });
          }}},
        {"show",
         {1,
          [](const Words& w) {
              void* logger = LoggerOf(w[0]);
              std::printf("%s=%d\n", w[0].c_str(), SKRIB_GetThreshold(logger));
              SKRIB_ReleaseLogger(logger);
          }}},
        {"threshold",
         {2,
          [](const Words& w) {
              const int result =
                  Checked([&] { return SKRIB_SetThreshold(OrNull(w[0]), Number(w[1])); });
              if (result != 0) std::puts("refused");
          }}},
        {"write",
         {6,
          [](const Words& w) {
              void* logger = LoggerOf(w[0]);
              Checked([&] {
                  SKRIB_Write(logger, Number(w[1]), OrNull(w[2]), OrNull(w[3]), OrNull(w[4]),
                              Number(w[5]));
                  return 0;
              });
          }}},
        {"large",
         {2,
          [](const Words& w) {
              const std::string text =
                  w[0] + std::string(static_cast<std::size_t>(Number(w[1])), '.');
              SKRIB_Write(SKRIB_GetLogger("large"), 4, text.c_str(), nullptr, nullptr, 0);
          }}},
        {"threads",
         {3, [](const Words& w) { WriteFromThreads(w[0], Number(w[1]), Number(w[2])); }}},
        {"race", {2, [](const Words& w) { TakeLoggerFromThreads(w[0], Number(w[1])); }}},
        {"receive", {0, [](const Words&) { SKRIB_SetSink(Print, nullptr); }}},
        {"receive-and-write", {0, [](const Words&) { SKRIB_SetSink(PrintAndWrite, nullptr); }}},
        {"receive-no-more", {0, [](const Words&) { SKRIB_SetSink(nullptr, nullptr); }}},
        {"late",
         {1,
          [](const Words& w) {
              std::atexit([] {
                  SKRIB_Write(late_logger, 4, "from an exit handler", nullptr, nullptr, 0);
                  SKRIB_ReleaseLogger(late_logger);
              });
              late_logger = SKRIB_GetLogger(w[0].c_str());
          }}},
        {"go-to", {1, [](const Words& w) { fs::current_path(fs::u8path(w[0])); }}},
        {"remove", {1, [](const Words& w) { fs::remove_all(fs::u8path(w[0])); }}},
        {"copy", {2, [](const Words& w) { fs::copy_file(fs::u8path(w[0]), fs::u8path(w[1])); }}},
        {"later", {1, [](const Words& w) { skrib_test::MoveClock(Number(w[0])); }}},
        {"die",
         {0,
          [](const Words&) {
              std::fflush(stdout);
              skrib_test::Die();
          }}},
    };
    return commands;
}

}  // namespace

int main(int count, char** arguments) {
    skrib_test::LimitLife();
    const Words words = skrib_test::Arguments(count, arguments);
    for (std::size_t at = 0; at < words.size();) {
        const auto command = Commands().find(words[at]);
        if (command == Commands().end()) return 2;
        const auto first = words.begin() + static_cast<std::ptrdiff_t>(at) + 1;
        const std::size_t given = words.size() - at - 1;
        if (given < command->second.arguments) return 2;
        const auto last = first + static_cast<std::ptrdiff_t>(command->second.arguments);
        command->second.run(Words(first, last));
        at += 1 + command->second.arguments;
    }
    return 0;
}
