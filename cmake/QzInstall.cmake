# Installation and CMake package export.
#
#   cmake --install <build dir> --prefix <prefix>
#
# installs the libraries (each through qz_install_library, cmake/QzLibrary.cmake),
# their headers and the package files, so that another project can write
#
#   find_package(qzparallellanguagefuture REQUIRED)
#   target_link_libraries(app PRIVATE qzparallellanguagefuture::qzparallellanguagefuture)
#   target_link_libraries(app PRIVATE qzparallellanguagefuture::qzlocalpool)   # the local pool
#
# qz_build_options (warnings, -Werror) is linked only as a BUILD_INTERFACE
# private dependency of the libraries, so it is neither installed nor exported.

include(CMakePackageConfigHelpers)

set(QZ_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/qzparallellanguagefuture"
  CACHE STRING "Where the CMake package files are installed, relative to the prefix")

install(EXPORT qzparallellanguagefutureTargets
  NAMESPACE qzparallellanguagefuture::
  FILE qzparallellanguagefutureTargets.cmake
  DESTINATION "${QZ_INSTALL_CMAKEDIR}"
  COMPONENT dev)

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
  DESTINATION "${QZ_INSTALL_CMAKEDIR}"
  COMPONENT dev)
