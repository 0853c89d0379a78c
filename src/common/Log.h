// The library's one logger, "vessa", and the call-site record of its messages.
//
// Levels: 1 trace, 2 debug, 3 information, 4 warning, 5 error. A message is written when the
// logger's threshold is at or below its level; the test comes before anything is built.
// Logging never throws and never calls back into the library; a record may be written with
// any lock held.
#pragma once

#include <atomic>
#include <cstdint>

#include "common/Compiler.h"

enum LogLevel : int32_t {
    kTrace = 1,
    kDebug = 2,
    kInformation = 3,
    kWarning = 4,
    kError = 5,
};

// Built on the stack for each formatted message. The handle is read through logger at the
// moment of writing.
struct LogSite {
    std::atomic<void*>* logger;
    int32_t level;
    const char* file;
    const char* function;
    int32_t line;
};

// The address of the global handle, which is fetched with the first call. The handle is null
// when the logging library had none to give, and after ReleaseLogger: nothing is written then.
VESSA_COLD std::atomic<void*>* GetLogger();

// Gives the handle back, once, at the end of the process or of the library. Nothing logs
// afterwards.
void ReleaseLogger();

// The level from which on messages are written; above every level when there is no logger.
int32_t LogThreshold();
// Whether the threshold lets a message of this level through.
inline bool LogEnabled(int32_t level) {
    return LogThreshold() <= level;
}

// Writes text as it stands; a null text writes nothing.
void LogPlain(int32_t level, const char* text, const char* file, const char* function,
              int32_t line);

// A message without values.
#define LOG_PLAIN(level, text) \
  LogPlain((level), (text), __FILE__, VESSA_FUNCTION_SIGNATURE, __LINE__)
