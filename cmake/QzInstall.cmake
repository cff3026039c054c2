# Installation and CMake package export.
#
#   cmake --install <build dir> --prefix <prefix>
#
# installs the libraries listed in QZ_INSTALLED_TARGETS (libqzhost,
# libqzparallellanguagefuture and the executors), their headers and the
# package files, so that another project can write
#
#   find_package(qzparallellanguagefuture REQUIRED)
#   target_link_libraries(app PRIVATE qzparallellanguagefuture::qzparallellanguagefuture)
#   target_link_libraries(app PRIVATE qzparallellanguagefuture::qzlocalpool)   # the local pool
#
# An installed library also needs its headers installed (below) and, when its
# include directories name a place under the prefix, an INSTALL_INTERFACE.
#
# qz_build_options (warnings, -Werror) is linked only as a BUILD_INTERFACE
# private dependency of the libraries, so it is neither installed nor exported.

include(CMakePackageConfigHelpers)

set(QZ_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/qzparallellanguagefuture"
  CACHE STRING "Where the CMake package files are installed, relative to the prefix")

# Every installed library, exported as qzparallellanguagefuture::<name>.
set(QZ_INSTALLED_TARGETS
  qzhost
  qzparallellanguagefuture
  qzlocalpool)

# The installed libraries find each other next to themselves.
foreach(target IN LISTS QZ_INSTALLED_TARGETS)
  get_target_property(type ${target} TYPE)
  if(NOT type STREQUAL "INTERFACE_LIBRARY")
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN")
  endif()
endforeach()

install(TARGETS ${QZ_INSTALLED_TARGETS}
  EXPORT qzparallellanguagefutureTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")

# Host headers live under include/qzhost (see qzhost's INSTALL_INTERFACE);
# the library's own headers under include/parallel/language/future, the
# executors' under include/<executor>.
install(DIRECTORY "${PROJECT_SOURCE_DIR}/host/include/"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/qzhost")
install(DIRECTORY "${PROJECT_SOURCE_DIR}/parallel/src/language/future/include/"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(DIRECTORY
  "${PROJECT_SOURCE_DIR}/executors/local/include/"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")

install(EXPORT qzparallellanguagefutureTargets
  NAMESPACE qzparallellanguagefuture::
  FILE qzparallellanguagefutureTargets.cmake
  DESTINATION "${QZ_INSTALL_CMAKEDIR}")

configure_package_config_file(
  "${CMAKE_CURRENT_LIST_DIR}/qzparallellanguagefutureConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/qzparallellanguagefutureConfig.cmake"
  INSTALL_DESTINATION "${QZ_INSTALL_CMAKEDIR}")
write_basic_package_version_file(
  "${PROJECT_BINARY_DIR}/qzparallellanguagefutureConfigVersion.cmake"
  VERSION "${PROJECT_VERSION}"
  COMPATIBILITY SameMajorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/qzparallellanguagefutureConfig.cmake"
  "${PROJECT_BINARY_DIR}/qzparallellanguagefutureConfigVersion.cmake"
  DESTINATION "${QZ_INSTALL_CMAKEDIR}")
