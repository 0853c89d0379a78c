# 64-bit Windows with mingw-w64. What Debian does not package for it comes from the prefix that
# tools/windows-deps.sh fills; programs run through Wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(vessa_triple x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${vessa_triple}-gcc-posix)
set(CMAKE_CXX_COMPILER ${vessa_triple}-g++-posix)
set(CMAKE_RC_COMPILER ${vessa_triple}-windres)
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../tools/wine.sh)

if(NOT VESSA_WINDOWS_DEPS)
  get_filename_component(VESSA_WINDOWS_DEPS ${CMAKE_CURRENT_LIST_DIR}/../build-windows-deps ABSOLUTE)
endif()
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VESSA_WINDOWS_DEPS CMAKE_PREFIX_PATH)

# Nothing of the building system may get in between: programs from there, all else from the
# prefix and the compiler's own folder.
set(CMAKE_FIND_ROOT_PATH ${CMAKE_PREFIX_PATH} ${VESSA_WINDOWS_DEPS} /usr/${vessa_triple})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${VESSA_WINDOWS_DEPS}/lib/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")

# The compiler's own libraries go into every program and library: nothing of ours needs a file
# that Windows does not have. Windows 7 has everything that is called.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")
set(CMAKE_C_FLAGS_INIT "-D_WIN32_WINNT=0x0601 -DWINVER=0x0601")
set(CMAKE_CXX_FLAGS_INIT "-D_WIN32_WINNT=0x0601 -DWINVER=0x0601")
