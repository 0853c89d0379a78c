/*
 * vessa.h: the application's side of the plug-in host library.
 *
 * An application starts the library once, asks for plug-in instances by function key
 * (fkey) and for interfaces by interface key (ikey), and never names a module file.
 * Which module serves which fkey is declared in list files named "tarnet.xml" anywhere
 * below the plug-in root, the folder "tarnet" beside the library's own file. The library
 * reads them at the start and follows their changes while it runs, every 30 seconds.
 * The plug-in's side is tarnet.h.
 *
 * Laws that hold for every function below
 *
 *  1. Threads. [any] every function may be called on any thread, at any time between the
 *     load and the unload of the library, several at once. Every thread that has called one,
 *     but for the one that unloads the library, has ended before the library is unloaded, or
 *     lives on and calls none again.
 *  2. Plug-in calls. [plug-in] a plug-in module may call every function from inside every
 *     operation of its table. It must not call any of them from its constructors and
 *     destructors of global objects: those run under the system loader's lock. So does DllMain
 *     on Windows, of the application's libraries too.
 *     The log's receiver (SKRIB_SetSink) must not call any of them.
 *  3. Results. A function with a result returns VESSA_OK or one of the codes of
 *     VESSA_RESULT_LIST; no other number is ever returned. No C++ exception leaves a function.
 *  4. Out parameters. They are set to null or zero before anything else is done with them,
 *     so a failed call leaves them cleared, except where its text says otherwise.
 *  5. A module's own failure is reported as VESSA_FAILED with the module's number in
 *     *plugin_error. plugin_error is optional everywhere: pass null if it is not wanted.
 *     It is 0 when the module was not reached. A module that throws counts as failing
 *     with the number -1.
 *  6. Texts are zero-terminated UTF-8, compared byte for byte and case-sensitively, and
 *     copied: the library keeps no pointer that it was given.
 *  7. Every refusal and failure is written to the log (logger "vessa") with its reason, except
 *     that there was no memory for the call itself.
 *  8. fork. The library must not be used in a forked child that does not exec;
 *     such a child may call exit.
 */
#ifndef VESSA_VESSA_H
#define VESSA_VESSA_H

#if defined(_WIN32)
#  if defined(VESSA_BUILDING)
#    define VESSA_API __declspec(dllexport)
#  elif defined(VESSA_STATIC)
#    define VESSA_API
#  else
#    define VESSA_API __declspec(dllimport)
#  endif
#elif defined(__GNUC__)
#  define VESSA_API __attribute__((visibility("default")))
#else
#  define VESSA_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Every result code: name, number, meaning. The enumeration below, the table in
 * docs/results.md and the tests are made from this list. 0x80000000 | n is the 32-bit form
 * of the numbers from VESSA_ERR_ARGUMENT on; the log shows them sign-extended to 64 bits.
 */
#define VESSA_RESULT_LIST(X)                                                                  \
  X(VESSA_OK, 0, "success")                                                                   \
  X(VESSA_FAILED, -1,                                                                         \
    "could not start; fkey or attribute not configured; an operation of the module is "       \
    "missing or failed, its own number is in plugin_error")                                   \
  X(VESSA_ERR_ARGUMENT, -2147483647, "bad argument or unknown instance")                      \
  X(VESSA_ERR_NO_MODULE_FILE, -2147483646, "the module file does not exist")                  \
  X(VESSA_ERR_NOT_REGISTERED, -2147483645,                                                    \
    "fkey not registered, or unregistered and waiting for its last instance to go")           \
  X(VESSA_ERR_NO_INTERFACE, -2147483643,                                                      \
    "the module has no entry function, its entry returned null, or a mandatory operation is " \
    "missing")                                                                                \
  X(VESSA_ERR_MODULE_LOAD, -2147483642, "the system could not load the module")               \
  X(VESSA_ERR_MODULE_UNLOAD, -2147483641, "the system could not unload the module")           \
  X(VESSA_ERR_OUT_OF_MEMORY, -2147483640, "out of memory")                                    \
  X(VESSA_ERR_BUFFER_TOO_SMALL, -2147483638, "the value buffer is too small")                 \
  X(VESSA_ERR_MODULE_INIT, -2147483637, "the module's Init failed")                           \
  X(VESSA_ERR_MODULE_UNINIT, -2147483636, "the module's Uninit failed")                       \
  X(VESSA_ERR_PLUGIN_CONFLICT, -2147483635,                                                   \
    "plug-in conflict: the same fkey with another file, or the same file name from another "  \
    "folder")                                                                                 \
  X(VESSA_ERR_INSTANCE_CONFLICT, -2147483634,                                                 \
    "instance conflict: the module returned an instance pointer that is already live")

enum vessa_result {
#define VESSA_RESULT_ENUMERATOR(name, number, meaning) name = number,
    VESSA_RESULT_LIST(VESSA_RESULT_ENUMERATOR)
#undef VESSA_RESULT_ENUMERATOR
        VESSA_RESULT_FORCE_INT = 2147483647 /* not a result: keeps the type at 32 bits */
};

/*
 * Starts the library, or counts one more user of it. [any] [plug-in]
 *
 * The first call finds the plug-in root, reads every list file below it, registers what
 * they declare, loads the modules that are not delay-loaded (their Init runs on this
 * thread) and starts the thread that follows changes. It returns when all that is done.
 * Each later call only counts. A root that does not exist or cannot be read is no failure:
 * it is logged, and looked for again with every scan.
 *
 * VESSA_OK      started or counted; must be matched by one VESSA_Uninit.
 * VESSA_FAILED  could not start, for example because the system refused a thread or memory,
 *               or because the call came from inside a plug-in call while the library was
 *               being stopped, or from inside one that creates, loads or unloads while the
 *               library did not run. Nothing is counted and a later call tries again. What the
 *               attempt registered stays registered.
 *
 * From inside a plug-in call it never waits for a start or stop on another thread: a start
 * in progress is counted on, and if that start then fails, the count is lost with it.
 */
VESSA_API int VESSA_Init(void);

/*
 * Takes one VESSA_Init back; the last one stops the library. [any] [plug-in]
 *
 * The stop ends the thread that follows changes and waits for it, then unregisters every
 * plug-in and unloads the modules without live instances (their Uninit runs on this
 * thread). A plug-in with live instances stays loaded until its last instance is destroyed;
 * until then the application must keep the library itself loaded. While it runs the library
 * holds a reference to itself, which the stop drops: whoever stops it must have it loaded.
 * Without a matching
 * VESSA_Init the call does nothing.
 *
 * The last one, when it comes from inside a plug-in call, is carried out when the outermost
 * call into the library on this thread ends, unless somebody started the library again.
 */
VESSA_API void VESSA_Uninit(void);

/*
 * Makes an instance of the plug-in registered under fkey, loading its module first if it is
 * delay-loaded and this is its first use. [any] [plug-in]
 *
 * fkey          the function key.
 * instance      receives the instance. It belongs to the plug-in's module and is valid until
 *               VESSA_DestroyInstance; only pass it to this library. What it is otherwise is
 *               between the application and the plug-in.
 * plugin_error  law 5.
 *
 * VESSA_OK                     *instance is the instance, or null if the module succeeded
 *                              without giving one: such a success cannot be taken back and
 *                              keeps the module loaded.
 * VESSA_ERR_ARGUMENT           fkey or instance null, or fkey empty.
 * VESSA_ERR_NOT_REGISTERED     no plug-in under this fkey, or it was unregistered and waits
 *                              for its last instance to go.
 * VESSA_FAILED                 the module's create failed; *plugin_error has its number.
 * VESSA_ERR_INSTANCE_CONFLICT  the module returned the pointer of a live instance; its
 *                              destroy was called for it once, and *instance holds that
 *                              pointer: do not use it.
 * VESSA_ERR_NO_MODULE_FILE, VESSA_ERR_NO_INTERFACE, VESSA_ERR_MODULE_LOAD,
 * VESSA_ERR_MODULE_INIT, VESSA_ERR_PLUGIN_CONFLICT
 *                              the module could not be loaded on this first use; the next
 *                              call tries again.
 * VESSA_ERR_OUT_OF_MEMORY      as it says.
 */
VESSA_API int VESSA_CreateInstance(const char* fkey, void** instance, int* plugin_error);

/*
 * Destroys an instance. [any] [plug-in]
 *
 * instance      from VESSA_CreateInstance. From the start of this call neither it nor any
 *               interface got from it may be used; of two calls with the same instance one
 *               is refused. If it was the last instance of a plug-in that has been
 *               unregistered meanwhile, its module is unloaded before the call returns; from
 *               inside a plug-in call that happens when the outermost create, registration
 *               or unload on this thread ends.
 * plugin_error  law 5.
 *
 * VESSA_OK                 destroyed.
 * VESSA_ERR_ARGUMENT       instance is null or not a live instance of this library.
 * VESSA_FAILED             the module's destroy failed; *plugin_error has its number. The
 *                          instance is no longer known, and it counts as live for its
 *                          module, which is therefore never unloaded.
 * VESSA_ERR_OUT_OF_MEMORY  as it says; the instance is untouched.
 */
VESSA_API int VESSA_DestroyInstance(void* instance, int* plugin_error);

/*
 * Asks an instance for an interface. [any] [plug-in]
 *
 * instance          from VESSA_CreateInstance; it must stay alive during the call.
 * ikey              the interface key.
 * plugin_interface  receives the interface. It belongs to the plug-in's module and dies with
 *                   the instance; nothing has to be given back.
 * plugin_error      law 5.
 *
 * VESSA_OK                 *plugin_interface is what the module gave.
 * VESSA_ERR_ARGUMENT       instance null or not live, ikey null or empty, or
 *                          plugin_interface null.
 * VESSA_FAILED             the module's query failed; *plugin_error has its number.
 * VESSA_ERR_OUT_OF_MEMORY  as it says.
 */
VESSA_API int VESSA_QueryInterface(void* instance, const char* ikey, void** plugin_interface,
                                   int* plugin_error);

/*
 * Reads one attribute of the element that declares fkey in a list file. [any] [plug-in]
 *
 * If several list files declare fkey, the first in the byte order of their paths answers.
 *
 * fkey, attribute_name  which attribute; any attribute that the list's author wrote.
 * value                 receives the value, or null to ask for its length only.
 * value_len             in: the size of value in bytes; out: the length of the value in
 *                       bytes without a terminator. Unchanged on VESSA_FAILED.
 *
 * The value is followed by a zero byte only if that fits: a buffer of exactly the value's
 * length is accepted and left without one. Size the buffer as the length plus 1. No byte
 * beyond the value and its zero is written.
 *
 * VESSA_OK                    value (if not null) and *value_len are set.
 * VESSA_ERR_ARGUMENT          fkey, attribute_name or value_len null.
 * VESSA_FAILED                fkey is not declared, or its element has no such attribute.
 * VESSA_ERR_BUFFER_TOO_SMALL  *value_len is the needed length; value is untouched.
 * VESSA_ERR_OUT_OF_MEMORY     as it says.
 */
VESSA_API int VESSA_QueryConfigAttribute(const char* fkey, const char* attribute_name, char* value,
                                         unsigned int* value_len);

/*
 * Lists every declared fkey, in the byte order of the list files' paths and in each file's
 * order; one that two files declare stands there twice. Declared does not mean registered.
 * [any] [plug-in]
 *
 * fkeys  receives an array of *count texts, to be given back with VESSA_ReleaseAllFkeys.
 *        With nothing declared it is an array of no entries that must be given back too.
 * count  receives their number.
 *
 * VESSA_OK                 both are set.
 * VESSA_ERR_ARGUMENT       fkeys or count null.
 * VESSA_ERR_OUT_OF_MEMORY  *fkeys is null, or an array of *count entries of which the ones
 *                          that could not be made are null: then give it back as well.
 */
VESSA_API int VESSA_QueryAllFkeys(char*** fkeys, unsigned int* count);

/*
 * Gives back what VESSA_QueryAllFkeys handed out. [any] [plug-in]
 *
 * count  the number from the same call. With 0 only the array is freed.
 *
 * VESSA_OK            freed.
 * VESSA_ERR_ARGUMENT  fkeys null.
 */
VESSA_API int VESSA_ReleaseAllFkeys(char** fkeys, unsigned int count);

#ifdef __cplusplus
}
#endif

#endif
