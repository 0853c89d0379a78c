/*
 * tarnet.h: the plug-in's side of the plug-in host library.
 *
 * A plug-in module is a shared library that exports one entry function. The entry returns a
 * table of operations; the library copies the pointers out of it at once. A list file named
 * "tarnet.xml" below the plug-in root declares under which function keys (fkey) the module
 * serves:
 *
 *     <vessa>
 *       <plugin fkey="codec.x" file="./codec_x.so" delayload="true" loadfkeys="false"/>
 *     </vessa>
 *
 *  fkey       the function key; blanks at both ends do not count.
 *  file       the module; "./" and "../" are resolved against the list file's folder, any
 *             other relative form against the working folder at the time of the load.
 *  delayload  begins with "true": the module is loaded with its first instance. An element
 *             without it takes the value of the element before it, the first one false.
 *  loadfkeys  begins with "true", and not delay-loaded: the module is asked for further
 *             fkeys (GetPluginMapFkeys), which are registered with the same module.
 *  others     kept for VESSA_QueryConfigAttribute.
 *
 * Two modules with the same file name in different folders cannot be registered together.
 * Replace a module and a list file by rename, never by writing over a loaded file, and put
 * the module in place before its list.
 *
 * Laws that hold for every operation
 *
 *  1. Threads. Init and Uninit run on the thread that caused the load or unload (any
 *     application thread, or the library's own thread that follows changes), one at a time
 *     for a module. The others run on whatever thread asks, several at once.
 *  2. Result. 0 is success. Any other number is the module's own failure code: it is logged
 *     and passed on to the application as plugin_error.
 *  3. Exceptions. Nothing should be thrown. What is thrown counts as the result -1; an exception
 *     of another C++ runtime than the library's own goes through the library to the caller.
 *  4. Calls back. Every VESSA_ function may be called from inside every operation, and from
 *     threads that the module started, with these limits, each of which can wait for ever:
 *     two modules must not use each other in their Init on two threads at once; an operation
 *     must not wait for a thread of its own that loads or unloads this same module, that
 *     destroys the last instance of a plug-in which was unregistered, or that is in VESSA_Init
 *     or VESSA_Uninit; and a destroy that is called for a pointer which was handed out twice
 *     must not wait for a thread of its own that uses instances.
 *     No VESSA_ function may be called from constructors or destructors of global objects.
 *  5. Ownership. Whatever a module returns stays its own; the library frees none of it, and
 *     copies what it keeps before the operation's caller goes on.
 *  6. A module must not destroy its own last instance from inside one of that instance's own
 *     interface functions, or its QueryInterface, after it was unregistered: its code would be
 *     unloaded under it.
 *  7. The process must not be ended, and no signal handler, terminate handler or locale be
 *     changed, by a module.
 *
 * On Linux modules are bound at once and locally: a missing symbol fails the load, and the
 * entry must be defined by the module itself, not by a library that it links. Build with
 * -fno-gnu-unique, otherwise the system may keep the module mapped after its unload.
 *
 * On Windows the libraries that a module needs are looked for beside it and among the system's
 * own, never in the current folder or along PATH. The entry may also be exported under the name
 * that a 32-bit __stdcall function has ("_TARNET_GetPluginInterface_V2@0"). A loaded module can
 * be renamed but not written over. DllMain counts as a constructor of global objects.
 */
#ifndef VESSA_TARNET_H
#define VESSA_TARNET_H

#if defined(_WIN32)
#  define TARNET_API __declspec(dllexport)
#elif defined(__GNUC__)
#  define TARNET_API __attribute__((visibility("default")))
#else
#  define TARNET_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The instance that no instance may have. */
#define TARNET_INVALID_HANDLE ((void*)0)

/* The size in bytes of one entry of an fkey array, its terminating zero included. */
#define TARNET_FKEY_SIZE 256

/*
 * The names of the entry function, in the order in which they are looked up; the first one
 * that the module exports is used. The first two return a version-2 table, the last two a
 * version-1 table. The forms with "@0" are what a 32-bit stdcall export carries.
 */
#define TARNET_ENTRY_V2 "TARNET_GetPluginInterface_V2"
#define TARNET_ENTRY_V2_DECORATED "_TARNET_GetPluginInterface_V2@0"
#define TARNET_ENTRY_V1 "TARNET_GetPluginInterface"
#define TARNET_ENTRY_V1_DECORATED "_TARNET_GetPluginInterface@0"

/*
 * Called once after the module is loaded, before any other operation. Mandatory.
 * Other than 0: the load fails with VESSA_ERR_MODULE_INIT, and the module is unloaded
 * without Uninit.
 */
typedef int (*tarnet_init_t)(void);

/*
 * Called once before the module is unloaded, after its last instance is gone. Mandatory.
 * Other than 0: logged; the module is unloaded all the same, its file name stays taken for
 * the rest of the process.
 */
typedef int (*tarnet_uninit_t)(void);

/*
 * Version 1: makes an instance and stores it in *instance. Mandatory.
 *
 * Every success must give a pointer that no live instance of any module has; a pointer that
 * is live already is destroyed again at once and refused. A success that leaves null counts
 * as a live instance that nobody can destroy and keeps the module loaded for good. What is
 * stored together with a failure is not looked at.
 */
typedef int (*tarnet_create_instance_t)(void** instance);

/* Version 2: the same, and told the fkey, so that one module can serve several. The text is
 * valid during the call. Mandatory. */
typedef int (*tarnet_create_instance_v2_t)(const char* fkey, void** instance);

/*
 * Destroys an instance that a create of this module returned. Mandatory.
 * Other than 0: the instance is no longer known to the library, but it counts as live, so
 * the module is never unloaded.
 */
typedef int (*tarnet_destroy_instance_t)(void* instance);

/*
 * Stores in *iface the interface named ikey of the instance. Mandatory.
 * The interface stays the module's and must be valid until the instance is destroyed.
 */
typedef int (*tarnet_query_interface_t)(void* instance, const char* ikey, void** iface);

/*
 * Returns the ikeys that the module's instances have: an array that ends with a null pointer
 * or an empty text. Called once, after Init, for the log. Optional; null counts as none.
 */
typedef const char** (*tarnet_get_all_interface_ikeys_t)(void);

/* Returns the module's version, free text for the log. Called once, after Init. Optional. */
typedef const char* (*tarnet_get_file_version_t)(void);

/*
 * Version 2: reports the further fkeys that the module serves. Optional. Two calls: with
 * fkeys null it stores in *count how many there are; with fkeys an array of that many zeroed
 * entries and *count still that number it fills the entries and stores how many it filled.
 * Only as many as were announced are read, an entry up to its first zero or 256 bytes. A
 * count below 1 is none. Counts and entries are used whatever the calls return; other than 0
 * from the first is logged. Asked only for elements with loadfkeys and without delayload, when
 * they are registered and again when they are removed: answer the same both times.
 */
typedef int (*tarnet_get_plugin_map_fkeys_t)(char (*fkeys)[TARNET_FKEY_SIZE], int* count);

/* The version-1 table: seven pointers. */
typedef struct tarnet_export_table_v1 {
    tarnet_init_t Init;
    tarnet_uninit_t Uninit;
    tarnet_create_instance_t CreateInstance;
    tarnet_destroy_instance_t DestroyInstance;
    tarnet_query_interface_t QueryInterface;
    tarnet_get_all_interface_ikeys_t GetAllInterfaceIkeys; /* may be null */
    tarnet_get_file_version_t GetFileVersion;              /* may be null */
} tarnet_export_table_v1;

/* The version-2 table: eight pointers; all eight slots are read. */
typedef struct tarnet_export_table_v2 {
    tarnet_init_t Init;
    tarnet_uninit_t Uninit;
    tarnet_create_instance_v2_t CreateInstance_V2;
    tarnet_destroy_instance_t DestroyInstance;
    tarnet_query_interface_t QueryInterface;
    tarnet_get_all_interface_ikeys_t GetAllInterfaceIkeys; /* may be null */
    tarnet_get_file_version_t GetFileVersion;              /* may be null */
    tarnet_get_plugin_map_fkeys_t GetPluginMapFkeys;       /* may be null */
} tarnet_export_table_v2;

/* The entry functions. The table must stay valid while the module is loaded; null fails the
 * load with VESSA_ERR_NO_INTERFACE. */
typedef const tarnet_export_table_v1* (*tarnet_entry_v1_t)(void);
typedef const tarnet_export_table_v2* (*tarnet_entry_v2_t)(void);

/* Declared here so that a module which defines one of them exports it. */
TARNET_API const tarnet_export_table_v1* TARNET_GetPluginInterface(void);
TARNET_API const tarnet_export_table_v2* TARNET_GetPluginInterface_V2(void);

#ifdef __cplusplus
}
#endif

#endif
