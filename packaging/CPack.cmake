# vessa-<version>-win64.zip, made by "cpack" in the build folder: what the installation has, the
# example host with its plug-ins ready to run beside the libraries, and what to read.
if(NOT PROJECT_IS_TOP_LEVEL)
  return()
endif()

set(vessa_examples "")
if(VESSA_BUILD_EXAMPLES)
  get_property(vessa_examples DIRECTORY ${PROJECT_SOURCE_DIR}/examples
    PROPERTY BUILDSYSTEM_TARGETS)
endif()
set(vessa_package_plugins "")
foreach(target IN LISTS vessa_examples)
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "EXECUTABLE")
    install(TARGETS ${target} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  elseif(type STREQUAL "MODULE_LIBRARY")
    get_target_property(output ${target} LIBRARY_OUTPUT_DIRECTORY)
    get_filename_component(folder ${output} NAME)
    install(TARGETS ${target} LIBRARY DESTINATION ${CMAKE_INSTALL_BINDIR}/tarnet/${folder})
    install(FILES ${output}/tarnet.xml DESTINATION ${CMAKE_INSTALL_BINDIR}/tarnet/${folder})
    list(APPEND vessa_package_plugins ${folder})
  endif()
endforeach()

configure_file(${PROJECT_SOURCE_DIR}/packaging/README.md.in
  ${PROJECT_BINARY_DIR}/package/README.md @ONLY)
install(FILES
  ${PROJECT_BINARY_DIR}/package/README.md
  ${PROJECT_SOURCE_DIR}/CHANGELOG.md
  ${PROJECT_SOURCE_DIR}/SECURITY.md
  DESTINATION .)
install(FILES
  ${PROJECT_SOURCE_DIR}/docs/operating.md
  ${PROJECT_SOURCE_DIR}/docs/results.md
  DESTINATION docs)
if(VESSA_WINDOWS_DEPS)
  # Everything is linked statically, so the terms of everything come along.
  install(DIRECTORY ${VESSA_WINDOWS_DEPS}/share/licenses DESTINATION .)
endif()

set(vessa_package_name vessa-${PROJECT_VERSION}-win64)
set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_NAME vessa)
set(CPACK_PACKAGE_FILE_NAME ${vessa_package_name})
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
include(CPack)

if(VESSA_BUILD_TESTS AND VESSA_BUILD_EXAMPLES AND CMAKE_CROSSCOMPILING_EMULATOR)
  add_subdirectory(${PROJECT_SOURCE_DIR}/tests/package)
endif()
