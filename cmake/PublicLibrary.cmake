# Publishes a library: vask_publish_library(TARGET NAME ops PKG_CONFIG vask-ops ...) gives it the alias
# vask::NAME in this build and in projects around it, installs it with its place in the CMake package
# vask_ops, and writes its pkg-config file.
#
#   NAME           of the target vask::NAME
#   PKG_CONFIG     name of the pkg-config file
#   DESCRIPTION    one line for it
#   SOVERSION      number in the soname; changes when a program that was linked with the library would no
#                  longer run. Left out for a library that is loaded by its file name: it has no soname
#                  version, and its names are only added to
#   REQUIRES       pkg-config files that a program needs in its own compilation
#   REQUIRES_PRIVATE  those that only linking the library in needs
#
# All public headers are installed together, by the list of include/.
include(CMakePackageConfigHelpers)

set(VASK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vask_ops)
set(VASK_PKG_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

function(vask_publish_library target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "NAME;PKG_CONFIG;DESCRIPTION;SOVERSION" "REQUIRES;REQUIRES_PRIVATE")
  add_library(vask::${arg_NAME} ALIAS ${target})
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${arg_NAME})
  if(DEFINED arg_SOVERSION)
    set_target_properties(${target} PROPERTIES VERSION ${arg_SOVERSION}.${PROJECT_VERSION} SOVERSION ${arg_SOVERSION})
  endif()
  target_include_directories(${target} INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  # Only a parent that adds this project needs the old names here; the installed ones stand beside the new.
  if(NOT PROJECT_IS_TOP_LEVEL)
    target_include_directories(${target} INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include/old_names>)
  endif()
  if(NOT VASK_INSTALL)
    return()
  endif()

  install(TARGETS ${target} EXPORT vask_ops-targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libraries NAMELINK_COMPONENT development)

  # Relative to the file's own place, so that an installed tree can be moved.
  file(RELATIVE_PATH VASK_PREFIX_FROM_PKG_CONFIG
    ${CMAKE_INSTALL_PREFIX}/${VASK_PKG_CONFIG_DIR} ${CMAKE_INSTALL_PREFIX})
  get_target_property(output_name ${target} OUTPUT_NAME)
  string(REGEX REPLACE "^lib" "" VASK_LINK_NAME ${output_name})
  list(JOIN arg_REQUIRES " " VASK_REQUIRES)
  list(JOIN arg_REQUIRES_PRIVATE " " VASK_REQUIRES_PRIVATE)
  set(VASK_PKG_CONFIG_NAME ${arg_PKG_CONFIG})
  set(VASK_DESCRIPTION ${arg_DESCRIPTION})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in
    ${PROJECT_BINARY_DIR}/pkgconfig/${arg_PKG_CONFIG}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/${arg_PKG_CONFIG}.pc
    DESTINATION ${VASK_PKG_CONFIG_DIR} COMPONENT development)
endfunction()

# Installs the headers and the CMake package of all published libraries.
function(vask_install_package)
  if(NOT VASK_INSTALL)
    return()
  endif()
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/vask ${PROJECT_SOURCE_DIR}/include/old_names/
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
  install(EXPORT vask_ops-targets NAMESPACE vask:: DESTINATION ${VASK_CMAKE_DIR} COMPONENT development)
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/vask_ops-config.cmake.in
    ${PROJECT_BINARY_DIR}/vask_ops-config.cmake INSTALL_DESTINATION ${VASK_CMAKE_DIR}
    NO_SET_AND_CHECK_MACRO)
  # Before 1.0 a minor release may change the C++ layer.
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/vask_ops-config-version.cmake
    COMPATIBILITY SameMinorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/vask_ops-config.cmake
    ${PROJECT_BINARY_DIR}/vask_ops-config-version.cmake
    DESTINATION ${VASK_CMAKE_DIR} COMPONENT development)
endfunction()
