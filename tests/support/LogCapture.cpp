#include "support/LogCapture.h"

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <utility>

#include "skrib.h"
#include "support/Allocation.h"
#include "support/Sync.h"

namespace vessa_test {
namespace {

std::atomic<bool> capturing{false};

std::string Text(const char* text) {
    return text == nullptr ? std::string() : text;
}

int CountIn(const std::vector<LogRecord>& records, const std::string& part) {
    return static_cast<int>(std::count_if(
        records.begin(), records.end(),
        [&](const LogRecord& record) { return record.Line().find(part) != std::string::npos; }));
}

}  // namespace

LogCapture::LogCapture(int threshold, std::string logger) : logger_(std::move(logger)) {
    if (capturing.exchange(true)) throw std::logic_error("one LogCapture at a time");
    void* const handle = SKRIB_GetLogger(logger_.c_str());
    threshold_before_ = SKRIB_GetThreshold(handle);
    SKRIB_ReleaseLogger(handle);
    SKRIB_SetSink(&LogCapture::Sink, this);
    SKRIB_SetThreshold(logger_.c_str(), threshold);
}

LogCapture::~LogCapture() {
    SKRIB_SetThreshold(logger_.c_str(), threshold_before_);
    SKRIB_SetSink(nullptr, nullptr);
    capturing = false;
}

void LogCapture::Sink(void* user, const char* logger, int level, const char* text, const char* file,
                      const char* function, int line) {
    AllocationPause pause;
    LogRecord record;
    record.logger = Text(logger);
    record.level = level;
    record.text = Text(text);
    record.file = Text(file);
    record.function = Text(function);
    record.line = line;
    record.thread = std::this_thread::get_id();
    static_cast<LogCapture*>(user)->Add(std::move(record));
}

void LogCapture::Add(LogRecord record) {
    const std::string line = record.Line();
    std::vector<std::function<void()>> reactions;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (record.logger != logger_) {
            others_.push_back(std::move(record));
            return;
        }
        records_.push_back(std::move(record));
        for (const Reaction& reaction : reactions_) {
            if (line.find(reaction.part) != std::string::npos)
                reactions.push_back(reaction.function);
        }
        changed_.notify_all();
    }
    for (const auto& reaction : reactions) reaction();
}

std::vector<LogRecord> LogCapture::Records() const {
    AllocationPause pause;
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
}

std::vector<LogRecord> LogCapture::Others() const {
    AllocationPause pause;
    std::lock_guard<std::mutex> lock(mutex_);
    return others_;
}

std::vector<std::string> LogCapture::Lines() const {
    AllocationPause pause;
    std::vector<std::string> lines;
    for (const LogRecord& record : Records()) lines.push_back(record.Line());
    return lines;
}

std::vector<std::string> LogCapture::SequenceFor(std::thread::id thread) const {
    AllocationPause pause;
    std::vector<std::string> lines;
    for (const LogRecord& record : Records()) {
        if (record.thread == thread) lines.push_back(record.Line());
    }
    return lines;
}

std::vector<std::thread::id> LogCapture::Threads() const {
    AllocationPause pause;
    std::vector<std::thread::id> threads;
    for (const LogRecord& record : Records()) {
        if (std::find(threads.begin(), threads.end(), record.thread) == threads.end())
            threads.push_back(record.thread);
    }
    return threads;
}

int LogCapture::Count(const std::string& part) const {
    AllocationPause pause;
    return CountIn(Records(), part);
}

std::string LogCapture::Described() const {
    std::string all;
    for (const std::string& line : Lines()) all += "  " + line + "\n";
    return all.empty() ? "  nothing\n" : all;
}

testing::AssertionResult LogCapture::Contains(const std::string& part) const {
    if (Count(part) > 0) return testing::AssertionSuccess() << "written: " << part;
    return testing::AssertionFailure() << "not written: " << part << "\nbut:\n" << Described();
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.clear();
    others_.clear();
}

void LogCapture::WaitFor(const std::string& part, int count) const {
    std::unique_lock<std::mutex> lock(mutex_);
    if (changed_.wait_for(lock, kLongWait, [&] { return CountIn(records_, part) >= count; }))
        return;
    lock.unlock();
    ThrowTimedOut("the line \"" + part + "\", written so far:\n" + Described());
}

void LogCapture::WaitFor(const std::function<bool(const std::vector<LogRecord>&)>& ready) const {
    std::unique_lock<std::mutex> lock(mutex_);
    if (changed_.wait_for(lock, kLongWait, [&] { return ready(records_); })) return;
    lock.unlock();
    ThrowTimedOut("records, written so far:\n" + Described());
}

void LogCapture::OnLine(const std::string& part, std::function<void()> function) {
    std::lock_guard<std::mutex> lock(mutex_);
    reactions_.push_back({part, std::move(function)});
}

}  // namespace vessa_test
