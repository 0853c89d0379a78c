/*
 * skrib.h: the logging library under the plug-in host library.
 *
 * Records go to named loggers. Each logger has a threshold; what has a lower level is
 * dropped. Until the application says otherwise everything goes to standard error, and to a
 * rotating file as well if SKRIB_FILE names one.
 *
 * Levels: 1 trace, 2 debug, 3 information, 4 warning, 5 error; as a threshold also 6, off.
 * The threshold is 4 unless set by SKRIB_SetThreshold or by the environment.
 *
 * A line on standard error and in the file is: date and time with milliseconds and zone,
 * thread, level, [logger], text, and (file:line function) where these are given. A text of
 * several lines is written as it is.
 *
 * The environment is read once, with the first call, and not at all in a program that runs
 * with more rights than its user has:
 *
 *  SKRIB_LEVEL  thresholds: a number or a name ("3", "information", "info", "warn"; upper or
 *               lower case), or a list by logger ("vessa=debug,tova=warning"), in which an
 *               element without a name is for all others. What cannot be read is reported
 *               once on standard error and ignored.
 *  SKRIB_FILE   path of the file, for one process alone; any letters, on Windows too. At 10 MiB
 *               it is renamed ("log.txt" to "log.1.txt") and begun anew; four older ones are
 *               kept. Warnings and errors are in the file when the call returns. A file that
 *               cannot be written is reported on standard error and tried again after 10
 *               seconds; what comes meanwhile only goes to standard error.
 *
 * Every function may be called on any thread and at any time, also by global objects and exit
 * handlers; none throws or changes errno. Texts are copied before a call returns. Once loaded
 * the library stays in the process. Writing blocks while standard error does.
 */
#ifndef SKRIB_SKRIB_H
#define SKRIB_SKRIB_H

#if defined(SKRIB_API)
/* The includer defines these functions itself, or says how it finds them. */
#elif defined(_WIN32)
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
 * buffered. A released logger must not be used; it stays valid memory all the same, so that a
 * late user does no harm. Releasing null does nothing. */
SKRIB_API void* SKRIB_GetLogger(const char* name);
SKRIB_API void SKRIB_ReleaseLogger(void* logger);

/* The logger's threshold; SKRIB_LEVEL_OFF for a null logger. Cheap: one load. */
SKRIB_API int SKRIB_GetThreshold(void* logger);

/*
 * Writes one record, whatever the threshold. A null logger or text writes nothing; a level
 * below 1 counts as 1, one above 5 as 5. file, function and line say where it comes from and
 * may be null or 0; a line without a file is left out of the built-in lines.
 */
SKRIB_API void SKRIB_Write(void* logger, int level, const char* text, const char* file,
                           const char* function, int line);

/*
 * For the application. Sets the threshold of the logger of that name, now or when it is
 * made; null sets it for all loggers, made and to come, also those set by name before. 0, or
 * -1 for a level outside 1 to 6 or for want of memory.
 */
SKRIB_API int SKRIB_SetThreshold(const char* name, int level);

/*
 * For the application. Sends the records to its own receiver instead of the built-in ones;
 * null goes back to those. The receiver is called on the writing thread, on several at once,
 * with no lock of skrib held; it may call skrib but not the plug-in host library. Its texts
 * are the caller's, valid during the call; file and function may be null. A record that it
 * writes itself goes to the built-in ones. What it throws is dropped; it must not be left by
 * longjmp.
 *
 * When SKRIB_SetSink returns no thread is in an earlier receiver any more, and none will be:
 * so do not call it with a lock held that a receiver waits for. Called from inside a receiver
 * it does not wait. 0, or -1 for want of memory, which only the first call of skrib can meet.
 */
SKRIB_API int SKRIB_SetSink(void (*sink)(void* user, const char* logger, int level,
                                         const char* text, const char* file, const char* function,
                                         int line),
                            void* user);

#ifdef __cplusplus
}
#endif

#endif
