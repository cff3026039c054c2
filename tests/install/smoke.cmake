# Run by the install_smoke test (cmake -P). Inputs: QZ_BUILD_DIR, QZ_PREFIX,
# QZ_CONSUMER_SOURCE_DIR, QZ_CONSUMER_BINARY_DIR, QZ_GENERATOR,
# QZ_CXX_COMPILER, QZ_CONFIG.
cmake_minimum_required(VERSION 3.25)

function(qz_step what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "install_smoke: ${what} failed (${result})")
  endif()
endfunction()

set(config_args)
if(QZ_CONFIG)
  set(config_args --config "${QZ_CONFIG}")
endif()

file(REMOVE_RECURSE "${QZ_PREFIX}" "${QZ_CONSUMER_BINARY_DIR}")

qz_step("install"
  "${CMAKE_COMMAND}" --install "${QZ_BUILD_DIR}" --prefix "${QZ_PREFIX}" ${config_args})

# Only the fresh prefix may provide the package: no package registries.
qz_step("configuring the consumer"
  "${CMAKE_COMMAND}" -S "${QZ_CONSUMER_SOURCE_DIR}" -B "${QZ_CONSUMER_BINARY_DIR}"
    -G "${QZ_GENERATOR}"
    "-DCMAKE_CXX_COMPILER=${QZ_CXX_COMPILER}"
    "-DCMAKE_BUILD_TYPE=${QZ_CONFIG}"
    "-DCMAKE_PREFIX_PATH=${QZ_PREFIX}"
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
    -DCMAKE_FIND_USE_SYSTEM_PACKAGE_REGISTRY=OFF)

file(STRINGS "${QZ_CONSUMER_BINARY_DIR}/CMakeCache.txt" package_dir
  REGEX "^qzparallellanguagefuture_DIR:")
string(REGEX REPLACE "^[^=]*=" "" package_dir "${package_dir}")
file(REAL_PATH "${QZ_PREFIX}" prefix_real)
file(REAL_PATH "${package_dir}" package_dir_real)
string(FIND "${package_dir_real}/" "${prefix_real}/" position)
if(NOT position EQUAL 0)
  message(FATAL_ERROR "install_smoke: package found in '${package_dir}', not under '${QZ_PREFIX}'")
endif()

qz_step("building the consumer"
  "${CMAKE_COMMAND}" --build "${QZ_CONSUMER_BINARY_DIR}" ${config_args})

find_program(consumer consumer
  PATHS "${QZ_CONSUMER_BINARY_DIR}" "${QZ_CONSUMER_BINARY_DIR}/${QZ_CONFIG}"
  NO_DEFAULT_PATH REQUIRED)
qz_step("running the consumer" "${consumer}")
message(STATUS "install_smoke: installed package found, built and ran a consumer")
