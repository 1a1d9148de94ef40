# Debian packages by CPack, for scripts/package: the libraries, what is needed to build with them, and
# the command.
option(VASK_PACKAGE "Install the documents that a Debian package has, and configure CPack" OFF)
if(NOT VASK_PACKAGE)
  return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vask)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# A name that mail is never delivered to: whoever gives packages out puts theirs here.
set(CPACK_PACKAGE_CONTACT "vask_ops maintainers <maintainers@vask-ops.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL libraries development command)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Dependencies on other packages are read from the binaries; among these three they are exact.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(exactly_the_libraries "libvask0 (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_LIBRARIES_PACKAGE_NAME libvask0)
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_DEBIAN_LIBRARIES_DESCRIPTION
  "The operators, which a kernel loads into its process; a small kernel in memory to
run them in; statistics of tables through the Arrow C interface.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvask-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS ${exactly_the_libraries})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
  "Headers, CMake package and pkg-config files of the libraries.")

set(CPACK_DEBIAN_COMMAND_PACKAGE_NAME vask)
set(CPACK_DEBIAN_COMMAND_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_COMMAND_PACKAGE_DEPENDS ${exactly_the_libraries})
set(CPACK_DEBIAN_COMMAND_DESCRIPTION
  "The command vask: sums, moments, order statistics, distinct counts and statistics
of two columns of a CSV or TSV file, whole and by group, on all cores.")

set(news ${PROJECT_BINARY_DIR}/packaging/NEWS.gz)
add_custom_command(OUTPUT ${news}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/packaging
  COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/CHANGELOG.md > ${news}
  DEPENDS ${PROJECT_SOURCE_DIR}/CHANGELOG.md)
add_custom_target(vask_package_documents ALL DEPENDS ${news})
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${news}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME} COMPONENT ${component})
endforeach()
include(CPack)
