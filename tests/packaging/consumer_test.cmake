# Stages the built tree as a distribution's package build does (DESTDIR, prefix /usr), checks the
# RUNPATHs, then builds and runs a separate project against the staged tree the way a sysroot
# build finds it: through find_package(VelmoraBase) re-rooted with CMAKE_FIND_ROOT_PATH (MODE
# find_package), or through pkg-config with PKG_CONFIG_SYSROOT_DIR (MODE pkg-config). For a cross
# build, the consumer is built with the same toolchain and run under the emulator.
string(REPLACE "|" ";" EMULATOR "${EMULATOR}")
set(stage "${WORK_DIR}/stage-${MODE}")
set(work "${WORK_DIR}/consumer-${MODE}")
file(REMOVE_RECURSE "${stage}" "${work}")

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output
    ERROR_VARIABLE output)
  message("${output}")
  if(NOT result EQUAL 0)
    list(JOIN ARGN " " command)
    message(FATAL_ERROR "failed (${result}): ${command}")
  endif()
endfunction()

# Sets <variable> to the RUNPATH of <file>, empty when it has none.
function(read_runpath file variable)
  execute_process(COMMAND ${READELF} -d "${file}" OUTPUT_VARIABLE dynamic RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${READELF} failed on ${file}")
  endif()
  set(runpath "")
  if(dynamic MATCHES "\\((RUNPATH|RPATH)\\)[^[]*\\[([^]\n]*)\\]")
    set(runpath "${CMAKE_MATCH_2}")
  endif()
  set(${variable} "${runpath}" PARENT_SCOPE)
endfunction()

# An empty entry (a leading or trailing ':' or '::') makes the loader search the current folder.
read_runpath("${LIBRARY}" build_runpath)
if(build_runpath MATCHES "(^|:)(:|$)")
  message(FATAL_ERROR "The built library's RUNPATH '${build_runpath}' has an empty entry")
endif()

set(ENV{DESTDIR} "${stage}")
run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix /usr)
unset(ENV{DESTDIR})
set(libdir "${stage}/usr/${LIBDIR}")

read_runpath("${libdir}/libbase_utils.so" installed_runpath)
if(NOT installed_runpath STREQUAL "")
  message(FATAL_ERROR "The library installed under /usr has a RUNPATH: '${installed_runpath}'")
endif()

# The linker resolves libbase_utils.so's own dependencies through -rpath-link; the program finds
# the staged libraries through LD_LIBRARY_PATH, as it would find them in /usr/lib once installed.
set(link_flags "-Wl,-rpath-link,${libdir}")
if(TARGET_SYSROOT)
  string(APPEND link_flags " -Wl,-rpath-link,${TARGET_SYSROOT}/usr/lib/arm-linux-gnueabihf")
endif()
set(ENV{LD_LIBRARY_PATH} "${libdir}")
string(REPLACE "LD_LIBRARY_PATH=" "LD_LIBRARY_PATH=${libdir}:" EMULATOR "${EMULATOR}")

if(MODE STREQUAL "find_package")
  set(configure_args -S "${CONSUMER_DIR}" -B "${work}"
    "-DCMAKE_FIND_ROOT_PATH=${stage}" "-DCMAKE_PREFIX_PATH=/usr"
    "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}" "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${link_flags}")
  if(TOOLCHAIN_FILE)
    list(APPEND configure_args "-DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE}"
      "-DVELMORA_TARGET_SYSROOT=${TARGET_SYSROOT}")
  endif()
  run(${CMAKE_COMMAND} ${configure_args})
  run(${CMAKE_COMMAND} --build "${work}")
else()
  find_program(PKG_CONFIG pkg-config REQUIRED)
  set(ENV{PKG_CONFIG_SYSROOT_DIR} "${stage}")
  set(ENV{PKG_CONFIG_LIBDIR} "${libdir}/pkgconfig")
  unset(ENV{PKG_CONFIG_PATH})
  execute_process(COMMAND ${PKG_CONFIG} --cflags --libs velmora-base
    OUTPUT_VARIABLE pc_flags RESULT_VARIABLE pc_result OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT pc_result EQUAL 0)
    message(FATAL_ERROR "pkg-config does not know velmora-base in ${libdir}/pkgconfig")
  endif()
  if(NOT pc_flags MATCHES "-I${stage}/usr/include" OR NOT pc_flags MATCHES "-L${libdir}")
    message(FATAL_ERROR "pkg-config's flags are not re-rooted in the staged tree: ${pc_flags}")
  endif()
  separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
  separate_arguments(extra_flags UNIX_COMMAND "${CXX_FLAGS} ${link_flags}")
  file(MAKE_DIRECTORY "${work}")
  run(${CXX_COMPILER} -std=c++17 "${CONSUMER_DIR}/main.cpp" -o "${work}/consumer" ${pc_flags}
    ${extra_flags})
endif()

run(${EMULATOR} "${work}/consumer")
