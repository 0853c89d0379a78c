// LogCapture.h: the records of one logger while a test runs, and the comparison of whole
// sequences of them.
#ifndef VESSA_TESTS_SUPPORT_LOGCAPTURE_H
#define VESSA_TESTS_SUPPORT_LOGCAPTURE_H

#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vessa_test {

struct LogRecord {
    std::string logger;
    int level = 0;
    std::string text;
    std::string file;
    std::string function;
    int line = 0;
    std::thread::id thread;

    // "3 the text"
    std::string Line() const { return std::to_string(level) + " " + text; }
};

// Whether the lines are the expected ones, all and in this order. An expected line may contain
// "{*}", which stands for any text, also none, and "{*name}", which stands for the same text
// wherever it occurs in the sequence, such as an address. On a mismatch the result shows the
// first difference with its line number.
testing::AssertionResult LinesAre(const std::vector<std::string>& lines,
                                  const std::vector<std::string>& expected);

// One line, with the same placeholders.
bool LineMatches(const std::string& line, const std::string& expected);

// Receives what is logged from its construction to its destruction; one at a time in a
// process. It sets the logger's threshold and puts back what was there.
//
// Records are put in order by a mutex, which also orders the threads that log: a test that
// looks for races runs without a capture or with the threshold SKRIB_LEVEL_OFF.
class LogCapture {
  public:
    explicit LogCapture(int threshold = 1, std::string logger = "vessa");
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogRecord> Records() const;
    // "3 the text" for each record.
    std::vector<std::string> Lines() const;
    // Those that one thread wrote.
    std::vector<std::string> SequenceFor(std::thread::id thread) const;
    // The threads that wrote, in the order of their first record.
    std::vector<std::thread::id> Threads() const;
    // What other loggers wrote meanwhile.
    std::vector<LogRecord> Others() const;

    // EXPECT_TRUE(log.Is({"3 invoke vessa init", ...})): all records so far, see LinesAre.
    testing::AssertionResult Is(const std::vector<std::string>& expected) const {
        return LinesAre(Lines(), expected);
    }
    // How many lines contain the text, given as it stands in "3 the text".
    int Count(const std::string& part) const;
    testing::AssertionResult Contains(const std::string& part) const;

    void Clear();

    // Waits until that many lines contain the text; fails the test and throws after kLongWait.
    void WaitFor(const std::string& part, int count = 1) const;
    void WaitFor(const std::function<bool(const std::vector<LogRecord>&)>& ready) const;

    // From now on calls the function on the writing thread, after the record is kept, for each
    // line that contains the text: where a test holds a thread at a known point. It must not
    // call the plug-in host library. Whatever it uses has to outlive this capture.
    void OnLine(const std::string& part, std::function<void()> function);

  private:
    struct Reaction {
        std::string part;
        std::function<void()> function;
    };

    static void Sink(void* user, const char* logger, int level, const char* text, const char* file,
                     const char* function, int line);
    void Add(LogRecord record);
    std::string Described() const;

    const std::string logger_;
    int threshold_before_ = 0;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<LogRecord> records_;
    std::vector<LogRecord> others_;
    std::vector<Reaction> reactions_;
};

}  // namespace vessa_test

#endif
