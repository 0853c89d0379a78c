# The tables of the built libraries' files, read from the files: run by the building system, so no
# emulator takes part.
set(tables ${CMAKE_CURRENT_SOURCE_DIR}/win32/tables.sh)
set(maps ${PROJECT_BINARY_DIR}/maps)

function(vessa_table_test name)
  add_test(NAME LibraryTables.${name} COMMAND ${tables} ${ARGN})
  set_tests_properties(LibraryTables.${name} PROPERTIES LABELS capi TIMEOUT 60)
endfunction()

vessa_table_test(VessaExportsTheEightFunctionsAndTheTwoAssignmentsAndNothingElse
  exports ${CMAKE_OBJDUMP} $<TARGET_FILE:vessa>
  VESSA_Init VESSA_Uninit VESSA_CreateInstance VESSA_DestroyInstance VESSA_QueryInterface
  VESSA_QueryConfigAttribute VESSA_QueryAllFkeys VESSA_ReleaseAllFkeys
  _ZN10TOVA_MutexaSERKS_ _ZN9TOVA_SemaaSERKS_)
vessa_table_test(SkribExportsItsSixFunctionsAndNothingElse
  exports ${CMAKE_OBJDUMP} $<TARGET_FILE:skrib>
  SKRIB_GetLogger SKRIB_ReleaseLogger SKRIB_GetThreshold SKRIB_Write
  SKRIB_SetThreshold SKRIB_SetSink)
vessa_table_test(SkribExportsTheOperationsOfALoggerByNumber
  numbers ${CMAKE_OBJDUMP} $<TARGET_FILE:skrib>
  SKRIB_GetLogger SKRIB_ReleaseLogger SKRIB_GetThreshold SKRIB_Write)
vessa_table_test(VessaReachesTheLogByNumberAlone
  imports ${CMAKE_OBJDUMP} $<TARGET_FILE:vessa> skrib.dll "#1" "#2" "#3" "#4")
vessa_table_test(TovaReachesTheLogByNumberAlone
  imports ${CMAKE_OBJDUMP} $<TARGET_FILE:tova> skrib.dll "#1" "#2" "#3" "#4")
vessa_table_test(VessaNeedsItsTwoLibrariesAndTheSystemsAlone
  libraries ${CMAKE_OBJDUMP} $<TARGET_FILE:vessa> tova.dll skrib.dll KERNEL32.dll msvcrt.dll)
vessa_table_test(TovaNeedsTheLogAndTheSystemsAlone
  libraries ${CMAKE_OBJDUMP} $<TARGET_FILE:tova> skrib.dll KERNEL32.dll msvcrt.dll)
vessa_table_test(SkribNeedsTheSystemsAlone
  libraries ${CMAKE_OBJDUMP} $<TARGET_FILE:skrib> KERNEL32.dll msvcrt.dll)
vessa_table_test(VessaReachesTheRuntimeThroughItsLibrary
  uses ${CMAKE_OBJDUMP} $<TARGET_FILE:vessa> tova.dll
  TOVA_MutexLock TOVA_SemTimedWait TOVA_Thread_Create TOVA_AtomicAdd TOVA_LoadDSo TOVA_OpenDir)
vessa_table_test(VessaHasNoThreadsAndLocksButTheRuntimes
  avoids ${CMAKE_OBJDUMP} $<TARGET_FILE:vessa>
  CreateThread _beginthread _beginthreadex CreateMutexA CreateMutexW CreateSemaphoreA
  CreateSemaphoreW CreateEventA CreateEventW AcquireSRWLockExclusive WaitForSingleObject
  WaitForMultipleObjects)
vessa_table_test(VessaReadsNoEnvironment
  avoids ${CMAKE_OBJDUMP} $<TARGET_FILE:vessa>
  getenv _wgetenv getenv_s GetEnvironmentVariableA GetEnvironmentVariableW GetEnvironmentStringsW)
foreach(library vessa tova skrib)
  vessa_table_test(NoThreadLibraryIsIn_${library}
    threads ${CMAKE_NM} $<TARGET_FILE:${library}> ${maps}/${library}.map)
endforeach()

# A library with every fault that is looked for: each check tells it.
add_library(capi_faulty SHARED win32/Faulty.cpp)
target_link_libraries(capi_faulty PRIVATE skrib Threads::Threads ws2_32)
target_link_options(capi_faulty PRIVATE
  LINKER:-Map=${CMAKE_CURRENT_BINARY_DIR}/faulty/faulty.map)
set_target_properties(capi_faulty PROPERTIES
  ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/faulty
  RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/faulty)
add_dependencies(vessa_capi_programs capi_faulty)

# vessa_fault_test(<name> <what is said> <check>...)
function(vessa_fault_test name said)
  add_test(NAME LibraryTablesTell.${name} COMMAND ${tables} ${ARGN})
  set_tests_properties(LibraryTablesTell.${name} PROPERTIES LABELS capi TIMEOUT 60
    PASS_REGULAR_EXPRESSION "${said}")
endfunction()
set(faulty $<TARGET_FILE:capi_faulty>)

vessa_fault_test(AnExportTooMany "exports: unexpected faulty_more"
  exports ${CMAKE_OBJDUMP} ${faulty} faulty_first)
vessa_fault_test(AnExportTooFew "exports: missing faulty_none"
  exports ${CMAKE_OBJDUMP} ${faulty} faulty_first faulty_more faulty_none)
vessa_fault_test(AnExportWithAnotherNumber "numbers: missing 1=faulty_more"
  numbers ${CMAKE_OBJDUMP} ${faulty} faulty_more faulty_first)
vessa_fault_test(ALibraryTooMany "libraries: unexpected WS2_32.dll"
  libraries ${CMAKE_OBJDUMP} ${faulty} KERNEL32.dll msvcrt.dll skrib.dll)
vessa_fault_test(AnImportByName "imports from skrib.dll: unexpected SKRIB_SetSink"
  imports ${CMAKE_OBJDUMP} ${faulty} skrib.dll "#1")
vessa_fault_test(AnImportByAnotherNumber "imports from skrib.dll: missing #3"
  imports ${CMAKE_OBJDUMP} ${faulty} skrib.dll "#1" "#3" SKRIB_SetSink)
vessa_fault_test(AnImportToBeAvoided "imports: unexpected GetEnvironmentVariableA"
  avoids ${CMAKE_OBJDUMP} ${faulty} GetEnvironmentVariableA)
vessa_fault_test(AThreadLibrary "threads: linked with lib(win)?pthread"
  threads ${CMAKE_NM} ${faulty} ${CMAKE_CURRENT_BINARY_DIR}/faulty/faulty.map)
vessa_fault_test(AThreadLocal "threads: thread-local __emutls_v.faulty_local"
  threads ${CMAKE_NM} ${faulty} ${CMAKE_CURRENT_BINARY_DIR}/faulty/faulty.map)
