/*
 * skrib.h: the logging library under the plug-in host library.
 *
 * Records go to named loggers. Each logger has a threshold; what has a lower level is
 * dropped. Until the application says otherwise everything goes to standard error, and to a
 * rotating file as well if SKRIB_FILE names one.
 *
 * Levels: 1 trace, 2 debug, 3 information, 4 warning, 5 error; as a threshold also 6, off.
 * The threshold is 4 unless set by SKRIB_SetThreshold or, for the whole process, by the
 * environment variable SKRIB_LEVEL: a number or name ("3", "information"), or a list
 * by logger ("vessa=debug,tova=warning").
 *
 * Every function may be called on any thread and never throws. Texts are copied before a
 * call returns.
 */
#ifndef SKRIB_SKRIB_H
#define SKRIB_SKRIB_H

#if defined(_WIN32)
#  if defined(SKRIB_BUILDING)
#    define SKRIB_API __declspec(dllexport)
#  else
#    define SKRIB_API __declspec(dllimport)
#  endif
#else
#  define SKRIB_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

#define SKRIB_LEVEL_TRACE 1
#define SKRIB_LEVEL_DEBUG 2
#define SKRIB_LEVEL_INFORMATION 3
#define SKRIB_LEVEL_WARNING 4
#define SKRIB_LEVEL_ERROR 5
#define SKRIB_LEVEL_OFF 6

/* The logger of that name, the same one for the same name. Null: name is null, or out of
 * memory. To be matched by one SKRIB_ReleaseLogger; the last release writes out what is
 * buffered. A released logger must not be used. */
SKRIB_API void* SKRIB_GetLogger(const char* name);
SKRIB_API void SKRIB_ReleaseLogger(void* logger);

/* The logger's threshold; SKRIB_LEVEL_OFF for a null logger. Cheap: one load. */
SKRIB_API int SKRIB_GetThreshold(void* logger);

/*
 * Writes one record, whatever the threshold. A null logger or text writes nothing.
 * file, function and line say where it comes from and may be null or 0.
 */
SKRIB_API void SKRIB_Write(void* logger, int level, const char* text, const char* file,
                           const char* function, int line);

/*
 * For the application. Sets the threshold of the logger of that name, now or when it is
 * made; null sets it for all loggers, made and to come. 0, or -1 for a level outside 1 to 6
 * or for want of memory.
 */
SKRIB_API int SKRIB_SetThreshold(const char* name, int level);

/*
 * For the application. Sends the records to its own receiver instead of the built-in ones;
 * null goes back to those. The receiver is called on the writing thread, on several at once,
 * with no lock of skrib held; it may call skrib but not the plug-in host library. When the
 * call returns no thread is in the former receiver any more, and none will be, unless the
 * call came from inside it. Always 0.
 */
SKRIB_API int SKRIB_SetSink(void (*sink)(void* user, const char* logger, int level,
                                         const char* text, const char* file, const char* function,
                                         int line),
                            void* user);

#ifdef __cplusplus
}
#endif

#endif
