# Debian packages of the installed components (`make package`, or `cpack` in a
# build folder configured with -DCMAKE_INSTALL_PREFIX=/usr):
#
#   libqzparallellanguagefuture<major>     component "runtime": the shared libraries
#   libqzparallellanguagefuture-dev        component "dev": headers, unversioned
#                                          links, the CMake package files
#
# The version is project()'s, like the sonames and the CMake version file.
# dpkg-shlibdeps (Debian's dpkg-dev) computes the runtime package's
# dependencies (Boost 1.81, Open MPI, the C++ runtime) from the libraries'
# own; the -dev package depends on the runtime package of the same version
# and on the -dev packages of what the headers include.

set(QZ_RUNTIME_PACKAGE "lib${PROJECT_NAME}${PROJECT_VERSION_MAJOR}")
set(QZ_DEV_PACKAGE "lib${PROJECT_NAME}-dev")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME "lib${PROJECT_NAME}")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_VENDOR "Korvex runtime")
set(CPACK_PACKAGE_CONTACT "Korvex runtime team <runtime@korvex.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "futures of the Korvex array-language runtime")
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://korvex.invalid/")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "${QZ_RUNTIME_PACKAGE}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
# The libraries link each other; dpkg-shlibdeps finds them in the staging tree.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  "${CMAKE_BINARY_DIR}/host"
  "${CMAKE_BINARY_DIR}/parallel/src/language/future"
  "${CMAKE_BINARY_DIR}/executors"
  "${CMAKE_BINARY_DIR}/executors/local")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "futures of the Korvex array-language runtime (shared libraries)
 libqzparallellanguagefuture, its host stand-in libqzhost, and the executors:
 libqzexecutor, the local worker pool libqzlocalpool and the cluster pool
 libqzmpipool over Open MPI.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME "${QZ_DEV_PACKAGE}")
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "${QZ_RUNTIME_PACKAGE} (= ${PROJECT_VERSION}), libboost1.81-dev, libboost-thread1.81-dev, libboost-log1.81-dev, libboost-chrono1.81-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "futures of the Korvex array-language runtime (development files)
 Headers and CMake package files: find_package(qzparallellanguagefuture)
 gives the targets qzparallellanguagefuture::qzparallellanguagefuture,
 ::qzhost, ::qzexecutor, ::qzlocalpool and ::qzmpipool.")

include(CPack)
