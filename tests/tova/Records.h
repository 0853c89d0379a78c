#ifndef TESTS_TOVA_RECORDS_H
#define TESTS_TOVA_RECORDS_H

#include <string>
#include <vector>

#include "Support.h"
#include "skrib.h"

namespace tova_test {

// What the log receives while it lives.
class Records {
  public:
    struct Record {
        std::string logger;
        int level;
        std::string text;
        std::string file;
    };

    Records() { SKRIB_SetSink(&Records::Receive, this); }
    ~Records() { SKRIB_SetSink(nullptr, nullptr); }
    Records(const Records&) = delete;
    Records& operator=(const Records&) = delete;

    // The records so far; they are forgotten here.
    std::vector<Record> Take() {
        TOVA_MutexLock(&mutex_.value);
        std::vector<Record> taken = std::move(records_);
        records_.clear();
        TOVA_MutexUnlock(&mutex_.value);
        return taken;
    }

  private:
    static void Receive(void* user, const char* logger, int level, const char* text,
                        const char* file, const char*, int) {
        Records& self = *static_cast<Records*>(user);
        TOVA_MutexLock(&self.mutex_.value);
        self.records_.push_back({logger, level, text, file == nullptr ? "" : file});
        TOVA_MutexUnlock(&self.mutex_.value);
    }

    Mutex mutex_;
    std::vector<Record> records_;
};

}  // namespace tova_test

#endif
