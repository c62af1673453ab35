# Stops the configuration early, naming the Debian package that provides what is missing.

function(velmora_require_header header package)
  find_path(_velmora_found_${package} ${header})
  if(NOT _velmora_found_${package})
    message(FATAL_ERROR "${header} not found: install the Debian package '${package}' "
      "(apt-get install ${package}).")
  endif()
endfunction()

function(velmora_require_library name package)
  find_library(_velmora_lib_${package} ${name})
  if(NOT _velmora_lib_${package})
    message(FATAL_ERROR "lib${name} not found: install the Debian package '${package}' "
      "(apt-get install ${package}).")
  endif()
endfunction()

velmora_require_header(uuid/uuid.h uuid-dev)
velmora_require_library(uuid uuid-dev)

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
