#include "skrib.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

// The words of the header in place of spdlog's own.
#define SPDLOG_LEVEL_NAMES \
  { "trace", "debug", "information", "warning", "error", "critical", "off" }
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include "system.h"

namespace skrib {
namespace {

constexpr int kDefaultThreshold = SKRIB_LEVEL_WARNING;
constexpr std::size_t kFileBytes = 10 * 1024 * 1024;
constexpr std::size_t kOlderFiles = 4;
constexpr std::chrono::seconds kFileRetry{10};
constexpr char kLayout[] = "%Y-%m-%dT%H:%M:%S.%e%z %t %l [%n] %v";

using SinkFunction = void (*)(void* user, const char* logger, int level, const char* text,
                              const char* file, const char* function, int line);

struct Record {
    const char* logger;
    int level;
    const char* text;
    const char* file;
    const char* function;
    int line;
};

bool IsThreshold(int level) {
    return level >= SKRIB_LEVEL_TRACE && level <= SKRIB_LEVEL_OFF;
}

std::unique_ptr<spdlog::formatter> MakeFormatter() {
    return std::make_unique<spdlog::pattern_formatter>(kLayout);
}

std::string TextOf(const Record& record) {
    std::string text = record.text;
    if (record.file == nullptr && record.function == nullptr) return text;
    text += " (";
    if (record.file != nullptr) {
        text += record.file;
        if (record.line != 0) text += ":" + std::to_string(record.line);
        if (record.function != nullptr) text += ' ';
    }
    if (record.function != nullptr) text += record.function;
    text += ')';
    return text;
}

std::string_view Trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// 0: the word is no level.
int ParseLevel(std::string_view word) {
    static constexpr std::pair<std::string_view, int> kWords[] = {
        {"1", SKRIB_LEVEL_TRACE},       {"trace", SKRIB_LEVEL_TRACE},
        {"2", SKRIB_LEVEL_DEBUG},       {"debug", SKRIB_LEVEL_DEBUG},
        {"3", SKRIB_LEVEL_INFORMATION}, {"information", SKRIB_LEVEL_INFORMATION},
        {"4", SKRIB_LEVEL_WARNING},     {"info", SKRIB_LEVEL_INFORMATION},
        {"5", SKRIB_LEVEL_ERROR},       {"warning", SKRIB_LEVEL_WARNING},
        {"6", SKRIB_LEVEL_OFF},         {"warn", SKRIB_LEVEL_WARNING},
        {"error", SKRIB_LEVEL_ERROR},   {"off", SKRIB_LEVEL_OFF},
    };
    // Not tolower: it asks the host's locale.
    const auto same = [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a + 32 : a) == b; };
    for (const auto& [name, level] : kWords) {
        if (std::equal(word.begin(), word.end(), name.begin(), name.end(), same)) return level;
    }
    return 0;
}

/*
 * The rotating file, opened with the first record. One that fails (no place left, no right to
 * write, a rotation that went wrong) is closed at once, since spdlog's sink cannot go on
 * after every failure, and opened again when some time has passed.
 *
 * Thread safety: none; the journal's lock.
 */
class RotatingFile {
  public:
    // Made absolute: the host may change its working folder before the file is opened or
    // rotated.
    explicit RotatingFile(const std::string& path) {
        if (path.empty()) return;
        const std::filesystem::path given = std::filesystem::u8path(path);
        std::error_code error;
        path_ = std::filesystem::absolute(given, error).native();
        if (error) path_ = given.native();
    }

    // Throws when the file fails, then does nothing until it is time to try again.
    void Write(const spdlog::details::log_msg& message) {
        if (path_.empty() || (sink_ == nullptr && Clock::now() < retry_)) return;
        OrClose([&] {
            if (sink_ == nullptr) Open();
            sink_->log(message);
            // What matters must be in the file even if the process dies next.
            if (message.level >= spdlog::level::warn) sink_->flush();
        });
    }

    void Flush() {
        if (sink_ == nullptr) return;
        OrClose([this] { sink_->flush(); });
    }

  private:
    using Clock = std::chrono::steady_clock;

    void Open() {
        sink_ =
            std::make_unique<spdlog::sinks::rotating_file_sink_st>(path_, kFileBytes, kOlderFiles);
        sink_->set_formatter(MakeFormatter());
    }

    template <class Work>
    void OrClose(Work work) {
        try {
            work();
        } catch (...) {
            sink_.reset();
            retry_ = Clock::now() + kFileRetry;
            throw;
        }
    }

    spdlog::filename_t path_;
    std::unique_ptr<spdlog::sinks::rotating_file_sink_st> sink_;
    Clock::time_point retry_{};
};

// threshold is read without the lock, references only with it, name never changes.
struct Logger {
    std::string name;
    std::atomic<int> threshold;
    int references = 0;
};

struct Receiver {
    SinkFunction function = nullptr;
    void* user = nullptr;
};

// One call of a receiver on its way: lives on the stack of the thread that makes it.
struct Call {
    Receiver receiver;
    std::size_t thread = 0;
    std::uint64_t era = 0;
    Call* next = nullptr;
};

/*
 * Everything skrib knows: loggers, thresholds, sinks and the receiver.
 *
 * Thread safety: any thread; lock_ is the last lock anybody takes, nothing of the host is
 * called under it.
 * Invariants: there is one journal, made on first use and never destroyed, so that global
 * objects and exit handlers of the host may log until the end. A logger is never removed.
 * calls_ holds exactly the calls of receivers that have not returned, each with the number
 * of SetReceiver calls before it.
 */
class Journal {
  public:
    static Journal& Get() {
        static Journal* const journal = new Journal;
        return *journal;
    }

    Logger* GetLogger(const char* name) {
        Held held(lock_);
        if (!held) return nullptr;
        Logger& logger = Find(name);
        ++logger.references;
        return &logger;
    }

    void ReleaseLogger(Logger* logger) {
        Held held(lock_);
        if (!held || logger->references == 0 || --logger->references != 0) return;
        ToFile([this]() SKRIB_REQUIRES(lock_) { file_.Flush(); });
    }

    void SetThreshold(const char* name, int level) {
        Held held(lock_);
        if (!held) return;
        if (name != nullptr) {
            Find(name).threshold.store(level, std::memory_order_relaxed);
            return;
        }
        default_threshold_ = level;
        for (auto& entry : loggers_) {
            entry.second.threshold.store(level, std::memory_order_relaxed);
        }
    }

    void Write(const Record& record) {
        Call call;
        {
            Held held(lock_);
            if (!held) return;
            call.thread = spdlog::details::os::thread_id();
            // A receiver that logs must not be called for its own records without end.
            if (receiver_.function == nullptr || IsInside(call.thread)) {
                WriteBuiltIn(record);
                return;
            }
            call.receiver = receiver_;
            call.era = era_;
            call.next = calls_;
            calls_ = &call;
        }
        const Leaving leaving(*this, call);
        call.receiver.function(call.receiver.user, record.logger, record.level, record.text,
                               record.file, record.function, record.line);  // calls out
    }

    void SetReceiver(Receiver receiver) {
        const std::size_t thread = spdlog::details::os::thread_id();
        Held held(lock_);
        if (!held) return;
        receiver_ = receiver;
        const std::uint64_t era = ++era_;
        // Also inside another receiver than the last one: two threads that replace each
        // other's would wait for one another.
        if (IsInside(thread)) return;
        while (IsBusyBefore(era)) lock_.Wait();
    }

  private:
    class Leaving {
      public:
        Leaving(Journal& journal, Call& call) : journal_(journal), call_(call) {}
        ~Leaving() { journal_.Leave(call_); }
        Leaving(const Leaving&) = delete;
        Leaving& operator=(const Leaving&) = delete;

      private:
        Journal& journal_;
        Call& call_;
    };

    Journal() : file_(Environment("SKRIB_FILE").value_or(std::string())) {
        StayLoaded();
        stderr_.set_formatter(MakeFormatter());
        const std::string levels = Environment("SKRIB_LEVEL").value_or(std::string());
        if (!Trimmed(levels).empty()) ReadLevels(levels);
    }

    void ReadLevels(std::string_view list) SKRIB_REQUIRES(lock_) {
        std::string refused;
        // Named ones last: an element without a name is for the others wherever it stands.
        for (const bool named : {false, true}) {
            std::string_view rest = list;
            for (;;) {
                const auto comma = std::min(rest.find(','), rest.size());
                const std::string_view element = Trimmed(rest.substr(0, comma));
                if ((element.find('=') != std::string_view::npos) == named) {
                    if (!ReadLevel(element)) refused.append(" \"").append(element).append("\"");
                }
                if (comma == rest.size()) break;
                rest.remove_prefix(comma + 1);
            }
        }
        if (!refused.empty()) Report("SKRIB_LEVEL: ignored" + refused);
    }

    bool ReadLevel(std::string_view element) SKRIB_REQUIRES(lock_) {
        const auto equals = element.find('=');
        if (equals == std::string_view::npos) {
            const int level = ParseLevel(element);
            if (level != 0) default_threshold_ = level;
            return level != 0;
        }
        const std::string_view name = Trimmed(element.substr(0, equals));
        const int level = ParseLevel(Trimmed(element.substr(equals + 1)));
        if (name.empty() || level == 0) return false;
        Find(name).threshold.store(level, std::memory_order_relaxed);
        return true;
    }

    // Makes it where there is none yet.
    Logger& Find(std::string_view name) SKRIB_REQUIRES(lock_) {
        const auto found = loggers_.find(name);
        if (found != loggers_.end()) return found->second;
        // In this order nothing is left behind when memory ends.
        std::string copy(name);
        Logger& logger = loggers_[std::string(name)];
        logger.name = std::move(copy);
        logger.threshold.store(default_threshold_, std::memory_order_relaxed);
        return logger;
    }

    bool IsInside(std::size_t thread) const SKRIB_REQUIRES(lock_) {
        for (const Call* call = calls_; call != nullptr; call = call->next) {
            if (call->thread == thread) return true;
        }
        return false;
    }

    bool IsBusyBefore(std::uint64_t era) const SKRIB_REQUIRES(lock_) {
        for (const Call* call = calls_; call != nullptr; call = call->next) {
            if (call->era < era) return true;
        }
        return false;
    }

    void Leave(Call& call) {
        // Without the lock only at the end of the process, when nobody else is left.
        Held held(lock_);
        Call** link = &calls_;
        while (*link != &call) link = &(*link)->next;
        *link = call.next;
        lock_.WakeAll();
    }

    void WriteBuiltIn(const Record& record) SKRIB_REQUIRES(lock_) {
        const std::string text = TextOf(record);
        const spdlog::details::log_msg message(
            record.logger, static_cast<spdlog::level::level_enum>(record.level - 1), text);
        ToStandardError(message);
        ToFile([&]() SKRIB_REQUIRES(lock_) { file_.Write(message); });
    }

    void ToStandardError(const spdlog::details::log_msg& message) SKRIB_REQUIRES(lock_) {
        try {
            stderr_.log(message);
        } catch (...) {
            // There is no better place to say so, and the file must still get its line.
        }
    }

    template <class Work>
    void ToFile(Work work) SKRIB_REQUIRES(lock_) {
        try {
            work();
        } catch (const std::exception& e) {
            Report(std::string("SKRIB_FILE: ") + e.what());
        }
    }

    void Report(const std::string& text) SKRIB_REQUIRES(lock_) {
        ToStandardError(spdlog::details::log_msg("skrib", spdlog::level::warn, text));
    }

    Lock lock_;
    std::map<std::string, Logger, std::less<>> loggers_ SKRIB_GUARDED_BY(lock_);
    int default_threshold_ SKRIB_GUARDED_BY(lock_) = kDefaultThreshold;
    spdlog::sinks::stderr_sink_st stderr_ SKRIB_GUARDED_BY(lock_);
    RotatingFile file_ SKRIB_GUARDED_BY(lock_);
    Receiver receiver_ SKRIB_GUARDED_BY(lock_);
    std::uint64_t era_ SKRIB_GUARDED_BY(lock_) = 0;
    Call* calls_ SKRIB_GUARDED_BY(lock_) = nullptr;
};

// The C boundary: nothing is thrown across it and the caller's last error survives it. A
// thread that is being cancelled, or ends itself in a receiver, must be let through.
template <class Result, class Work>
Result Guarded(Result failed, Work work) {
    const LastErrorKept kept;
    try {
        return work();
    } catch (...) {
        // Forced unwinding is no C++ exception and shows as none. A handler of its own for it
        // would bind a reference to nothing.
        if (std::current_exception() == nullptr) throw;
        return failed;
    }
}

}  // namespace
}  // namespace skrib

using skrib::Guarded;
using skrib::Journal;
using skrib::Logger;

extern "C" {

void* SKRIB_GetLogger(const char* name) {
    if (name == nullptr) return nullptr;
    return Guarded<void*>(nullptr, [&] { return Journal::Get().GetLogger(name); });
}

void SKRIB_ReleaseLogger(void* logger) {
    if (logger == nullptr) return;
    Guarded(0, [&] {
        Journal::Get().ReleaseLogger(static_cast<Logger*>(logger));
        return 0;
    });
}

int SKRIB_GetThreshold(void* logger) {
    if (logger == nullptr) return SKRIB_LEVEL_OFF;
    return static_cast<Logger*>(logger)->threshold.load(std::memory_order_relaxed);
}

void SKRIB_Write(void* logger, int level, const char* text, const char* file, const char* function,
                 int line) {
    if (logger == nullptr || text == nullptr) return;
    Guarded(0, [&] {
        Journal::Get().Write({static_cast<Logger*>(logger)->name.c_str(),
                              std::clamp(level, SKRIB_LEVEL_TRACE, SKRIB_LEVEL_ERROR), text, file,
                              function, line});
        return 0;
    });
}

int SKRIB_SetThreshold(const char* name, int level) {
    if (!skrib::IsThreshold(level)) return -1;
    return Guarded(-1, [&] {
        Journal::Get().SetThreshold(name, level);
        return 0;
    });
}

int SKRIB_SetSink(skrib::SinkFunction sink, void* user) {
    return Guarded(-1, [&] {
        Journal::Get().SetReceiver({sink, user});
        return 0;
    });
}

}  // extern "C"
