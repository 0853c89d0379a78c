# The installed package: the three libraries side by side, the headers an application and a
# plug-in need, and what find_package(vessa) reads.
include(CMakePackageConfigHelpers)

install(TARGETS vessa tova skrib EXPORT vessaTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/vessa DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/platform/skrib/skrib.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
target_include_directories(skrib INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

set(vessa_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/vessa)
install(EXPORT vessaTargets NAMESPACE vessa:: DESTINATION ${vessa_package_dir})
file(WRITE ${PROJECT_BINARY_DIR}/vessaConfig.cmake
  "include(\"\${CMAKE_CURRENT_LIST_DIR}/vessaTargets.cmake\")\n")
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vessaConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vessaConfig.cmake ${PROJECT_BINARY_DIR}/vessaConfigVersion.cmake
  DESTINATION ${vessa_package_dir})
