# Stops the configuration early, naming the Debian package that provides what is missing.

function(velmora_require_header header package result)
  find_path(${result} ${header})
  if(NOT ${result})
    message(FATAL_ERROR "${header} not found: install the Debian package '${package}' "
      "(apt-get install ${package}).")
  endif()
endfunction()

function(velmora_require_library name package result)
  find_library(${result} ${name})
  if(NOT ${result})
    message(FATAL_ERROR "lib${name} not found: install the Debian package '${package}' "
      "(apt-get install ${package}).")
  endif()
endfunction()

function(velmora_require_program name package result)
  find_program(${result} ${name})
  if(NOT ${result})
    message(FATAL_ERROR "${name} not found: install the Debian package '${package}' "
      "(apt-get install ${package}).")
  endif()
endfunction()

# A cross build looks for the target's libuuid in the toolchain's search roots: a device SDK's
# sysroot (CMAKE_SYSROOT) or the folder VELMORA_TARGET_SYSROOT. When that folder lacks it,
# tools/armhf-sysroot.sh fills it from Debian's armhf packages, without touching the host's apt.
if(CMAKE_CROSSCOMPILING AND VELMORA_TARGET_SYSROOT AND NOT CMAKE_SYSROOT)
  find_path(VELMORA_UUID_INCLUDE_DIR uuid/uuid.h)
  if(NOT VELMORA_UUID_INCLUDE_DIR)
    unset(VELMORA_UUID_INCLUDE_DIR CACHE)
    execute_process(
      COMMAND "${PROJECT_SOURCE_DIR}/tools/armhf-sysroot.sh" "${VELMORA_TARGET_SYSROOT}"
      RESULT_VARIABLE _velmora_sysroot_result)
    if(NOT _velmora_sysroot_result EQUAL 0)
      message(FATAL_ERROR "Could not unpack the target's libuuid into ${VELMORA_TARGET_SYSROOT}: "
        "tools/armhf-sysroot.sh needs Debian's armhf packages uuid-dev:armhf and libuuid1:armhf.")
    endif()
  endif()
endif()

velmora_require_header(uuid/uuid.h uuid-dev VELMORA_UUID_INCLUDE_DIR)
velmora_require_library(uuid uuid-dev VELMORA_UUID_LIBRARY)

if(VELMORA_BUILD_TESTS AND NOT EXISTS /usr/src/googletest/CMakeLists.txt)
  message(FATAL_ERROR "GoogleTest sources not found in /usr/src/googletest: install the Debian "
    "package 'googletest' (apt-get install googletest).")
endif()

if(VELMORA_BUILD_BENCHMARKS)
  find_package(benchmark QUIET)
  if(NOT benchmark_FOUND)
    message(FATAL_ERROR "Google Benchmark not found: install the Debian package "
      "'libbenchmark-dev' (apt-get install libbenchmark-dev).")
  endif()
endif()
