# qz_install_library(<target> HEADERS <dir> [HEADER_DESTINATION <dir>])
#
# Gives a shared library of the project its public include directory
# (HEADERS in the build tree, HEADER_DESTINATION once installed), the
# project's version and soname (lib<target>.so.<major> ->
# lib<target>.so.<version>, both from project()), lets the installed
# libraries find each other next to themselves, and installs it with its
# headers in the export set of the CMake package:
#
#   component "runtime"  the versioned library and its soname link
#   component "dev"      the unversioned link, the headers (HEADERS, copied
#                        into HEADER_DESTINATION, by default the include dir)
#
# The Debian packages are cut along these components (cmake/QzPackage.cmake).
function(qz_install_library target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "HEADERS;HEADER_DESTINATION" "")
  if(NOT arg_HEADERS)
    message(FATAL_ERROR "qz_install_library(${target}): HEADERS is required")
  endif()
  if(NOT arg_HEADER_DESTINATION)
    set(arg_HEADER_DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
  endif()
  target_include_directories(${target} PUBLIC
    "$<BUILD_INTERFACE:${arg_HEADERS}>"
    "$<INSTALL_INTERFACE:${arg_HEADER_DESTINATION}>")
  set_target_properties(${target} PROPERTIES
    VERSION "${PROJECT_VERSION}"
    SOVERSION "${PROJECT_VERSION_MAJOR}"
    INSTALL_RPATH "$ORIGIN")
  install(TARGETS ${target}
    EXPORT qzparallellanguagefutureTargets
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT runtime NAMELINK_COMPONENT dev
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT dev
    RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT runtime)
  install(DIRECTORY "${arg_HEADERS}/" DESTINATION "${arg_HEADER_DESTINATION}" COMPONENT dev)
endfunction()
