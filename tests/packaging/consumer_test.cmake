# Installs the built tree into a prefix of its own, then builds and runs a separate project
# against it, through find_package(VelmoraBase) (MODE find_package) or pkg-config (MODE
# pkg-config). For a cross build, the consumer is built with the same toolchain and run under
# the emulator.
string(REPLACE "|" ";" EMULATOR "${EMULATOR}")
set(prefix "${WORK_DIR}/install-${MODE}")
set(work "${WORK_DIR}/consumer-${MODE}")
file(REMOVE_RECURSE "${prefix}" "${work}")

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output
    ERROR_VARIABLE output)
  message("${output}")
  if(NOT result EQUAL 0)
    list(JOIN ARGN " " command)
    message(FATAL_ERROR "failed (${result}): ${command}")
  endif()
endfunction()

run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")

set(link_flags)
if(TARGET_SYSROOT)
  # The cross linker resolves libbase_utils.so's own dependencies through this.
  set(link_flags "-Wl,-rpath-link,${TARGET_SYSROOT}/usr/lib/arm-linux-gnueabihf")
endif()

if(MODE STREQUAL "find_package")
  # The package folder is named directly: a cross toolchain re-roots CMAKE_PREFIX_PATH.
  set(configure_args -S "${CONSUMER_DIR}" -B "${work}"
    "-DVelmoraBase_DIR=${prefix}/lib/cmake/VelmoraBase"
    "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}" "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${link_flags}")
  if(TOOLCHAIN_FILE)
    list(APPEND configure_args "-DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE}"
      "-DVELMORA_TARGET_SYSROOT=${TARGET_SYSROOT}")
  endif()
  run(${CMAKE_COMMAND} ${configure_args})
  run(${CMAKE_COMMAND} --build "${work}")
  set(program "${work}/consumer")
else()
  find_program(PKG_CONFIG pkg-config REQUIRED)
  set(ENV{PKG_CONFIG_PATH} "${prefix}/lib/pkgconfig")
  set(ENV{PKG_CONFIG_LIBDIR} "${prefix}/lib/pkgconfig")
  execute_process(COMMAND ${PKG_CONFIG} --cflags --libs velmora-base
    OUTPUT_VARIABLE pc_flags RESULT_VARIABLE pc_result OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT pc_result EQUAL 0)
    message(FATAL_ERROR "pkg-config does not know velmora-base in ${prefix}")
  endif()
  separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
  separate_arguments(extra_flags UNIX_COMMAND "${CXX_FLAGS}")
  file(MAKE_DIRECTORY "${work}")
  run(${CXX_COMPILER} -std=c++17 ${extra_flags} "${CONSUMER_DIR}/main.cpp" -o "${work}/consumer"
    ${pc_flags} "-Wl,-rpath,${prefix}/lib" ${link_flags})
  set(program "${work}/consumer")
endif()

run(${EMULATOR} "${program}")
