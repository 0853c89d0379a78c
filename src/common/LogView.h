// One look at the log's threshold for a stretch of code.
//
// Between two calls out of the library nobody can tell when the threshold was read, so a chain of
// functions reads it once. What may have changed it, so that the log would show it, is a call into
// a module and a record that was written, because its receiver runs: after either it is read
// again.
#pragma once

#include "common/Log.h"
#include "common/MessageFormat.h"

// Thread safety: none; one chain of calls on one thread's stack.
class LogView {
  public:
    LogView() { Renew(); }
    LogView(const LogView&) = delete;
    LogView& operator=(const LogView&) = delete;

    void Renew() { threshold_ = LogThreshold(); }
    bool Shows(int32_t level) const { return threshold_ <= level; }

    template <class... Args>
    VESSA_COLD void Write(const LogSite& site, const char* format, const Args&... args) {
        const LogArg list[] = {LogArg(args)...};
        WriteFormatted(site, nullptr, format, list, sizeof...(args));
        Renew();
    }
    VESSA_COLD void WritePlain(const LogSite& site, const char* text) {
        LogPlain(site.level, text, site.file, site.function, site.line);
        Renew();
    }

  private:
    int32_t threshold_ = 0;
};

// A message with values, and one without, by the view of the chain.
#define LOG_FORMAT_IN(view, level, format, ...)                                  \
  do {                                                                           \
    if ((view).Shows(level)) (view).Write(LOG_SITE(level), format, __VA_ARGS__); \
  } while (false)
#define LOG_PLAIN_IN(view, level, text)                                  \
  do {                                                                   \
    if ((view).Shows(level)) (view).WritePlain(LOG_SITE(level), (text)); \
  } while (false)
