# The interface target vessa_flags: warnings, sanitizers and the form of source paths in log
# records (from the project's root, whatever machine built them).
add_library(vessa_flags INTERFACE)
if(MSVC)
  target_compile_options(vessa_flags INTERFACE
    /W4 /utf-8 /permissive- /Zc:__cplusplus /d1trimfile:${PROJECT_SOURCE_DIR}/)
  target_compile_definitions(vessa_flags INTERFACE _CRT_SECURE_NO_WARNINGS NOMINMAX)
  if(VESSA_WERROR)
    target_compile_options(vessa_flags INTERFACE /WX)
  endif()
  return()
endif()
target_compile_options(vessa_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion
  -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
if(MINGW)
  # For the linker to leave out what nobody calls.
  target_compile_options(vessa_flags INTERFACE -ffunction-sections -fdata-sections)
endif()
if(VESSA_WERROR)
  target_compile_options(vessa_flags INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # A unique symbol would keep the library mapped after its unload.
  target_compile_options(vessa_flags INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-fno-gnu-unique>)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  # The locks are checked wherever the compiler can: a break of their order is an error.
  target_compile_options(vessa_flags INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-Wthread-safety -Wthread-safety-beta
    -Werror=thread-safety -Werror=thread-safety-beta>)
endif()
if(VESSA_SANITIZE)
  target_compile_options(vessa_flags INTERFACE
    -fsanitize=${VESSA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(vessa_flags INTERFACE -fsanitize=${VESSA_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    # A program in C that loads the library needs the C++ part of the sanitizers' runtime too.
    target_link_options(vessa_flags INTERFACE $<$<LINK_LANGUAGE:C>:-fsanitize-link-c++-runtime>)
    target_link_libraries(vessa_flags INTERFACE $<$<LINK_LANGUAGE:C>:stdc++>)
  endif()
endif()
if(VESSA_COVERAGE)
  # Tests as well: of a function in a header that both have, the linker may take the test's.
  target_compile_options(vessa_flags INTERFACE
    --coverage -fprofile-update=atomic -fprofile-abs-path)
  target_link_options(vessa_flags INTERFACE --coverage)
endif()
