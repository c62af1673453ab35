# Installs the built tree and builds and runs a separate project against the install, through
# find_package(VelmoraBase) (MODE find_package) or through pkg-config (MODE pkg-config), in one of
# two layouts:
# - LAYOUT staged: as a distribution's package build does (DESTDIR, prefix /usr), consumed the way
#   a sysroot build finds it: find_package re-rooted with CMAKE_FIND_ROOT_PATH, or pkg-config with
#   PKG_CONFIG_SYSROOT_DIR; the program finds the staged libraries through LD_LIBRARY_PATH, as it
#   would find them in /usr/lib once installed.
# - LAYOUT prefix: into a folder of its own, standing for /opt/velmora, consumed as the README
#   shows: find_package through CMAKE_PREFIX_PATH, pkg-config through PKG_CONFIG_PATH and an rpath;
#   the program runs with no LD_LIBRARY_PATH.
# The RUNPATHs are checked on the way. For a cross build, the consumer is built with the same
# toolchain and run under the emulator.
cmake_minimum_required(VERSION 3.25)
string(REPLACE "|" ";" EMULATOR "${EMULATOR}")
set(install_root "${WORK_DIR}/${LAYOUT}-${MODE}")
set(work "${WORK_DIR}/consumer-${LAYOUT}-${MODE}")
file(REMOVE_RECURSE "${install_root}" "${work}")

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

unset(ENV{DESTDIR})
unset(ENV{LD_LIBRARY_PATH})
unset(ENV{PKG_CONFIG_PATH})
unset(ENV{PKG_CONFIG_LIBDIR})
unset(ENV{PKG_CONFIG_SYSROOT_DIR})
if(LAYOUT STREQUAL "staged")
  set(prefix /usr)
  set(ENV{DESTDIR} "${install_root}")
  run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")
  unset(ENV{DESTDIR})
  set(prefix_dir "${install_root}/usr")
  set(expected_runpath "")
else()
  set(prefix "${install_root}")
  run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")
  set(prefix_dir "${prefix}")
  # The library finds the stand-in beside it.
  set(expected_runpath "$ORIGIN")
endif()
set(libdir "${prefix_dir}/${LIBDIR}")

read_runpath("${libdir}/libbase_utils.so" installed_runpath)
if(NOT installed_runpath STREQUAL expected_runpath)
  message(FATAL_ERROR "The library installed under ${prefix} has the RUNPATH "
    "'${installed_runpath}', not '${expected_runpath}'")
endif()

# The cross linker resolves libbase_utils.so's own dependency on libuuid in the target's folder.
set(link_flags "")
if(TARGET_SYSROOT)
  string(APPEND link_flags " -Wl,-rpath-link,${TARGET_SYSROOT}/usr/lib/arm-linux-gnueabihf")
endif()
if(LAYOUT STREQUAL "staged")
  string(APPEND link_flags " -Wl,-rpath-link,${libdir}")
  set(ENV{LD_LIBRARY_PATH} "${libdir}")
  string(REPLACE "LD_LIBRARY_PATH=" "LD_LIBRARY_PATH=${libdir}:" EMULATOR "${EMULATOR}")
endif()

if(MODE STREQUAL "find_package")
  set(configure_args -S "${CONSUMER_DIR}" -B "${work}"
    "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}" "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${link_flags}")
  if(LAYOUT STREQUAL "staged")
    list(APPEND configure_args "-DCMAKE_FIND_ROOT_PATH=${install_root}" "-DCMAKE_PREFIX_PATH=/usr")
  else()
    list(APPEND configure_args "-DCMAKE_PREFIX_PATH=${prefix}")
  endif()
  if(TOOLCHAIN_FILE)
    list(APPEND configure_args "-DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE}"
      "-DVELMORA_TARGET_SYSROOT=${TARGET_SYSROOT}")
    # The cross toolchain looks for packages only below its search roots.
    if(LAYOUT STREQUAL "prefix")
      list(APPEND configure_args "-DCMAKE_FIND_ROOT_PATH=${prefix}")
    endif()
  endif()
  run(${CMAKE_COMMAND} ${configure_args})
  run(${CMAKE_COMMAND} --build "${work}")
else()
  find_program(PKG_CONFIG pkg-config REQUIRED)
  if(LAYOUT STREQUAL "staged")
    set(ENV{PKG_CONFIG_SYSROOT_DIR} "${install_root}")
    set(ENV{PKG_CONFIG_LIBDIR} "${libdir}/pkgconfig")
  else()
    set(ENV{PKG_CONFIG_PATH} "${libdir}/pkgconfig")
    # The program finds the libraries in the prefix through its own RUNPATH.
    string(APPEND link_flags " -Wl,-rpath,${libdir}")
  endif()
  execute_process(COMMAND ${PKG_CONFIG} --cflags --libs velmora-base
    OUTPUT_VARIABLE pc_flags RESULT_VARIABLE pc_result OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT pc_result EQUAL 0)
    message(FATAL_ERROR "pkg-config does not know velmora-base in ${libdir}/pkgconfig")
  endif()
  if(NOT pc_flags MATCHES "-I${prefix_dir}/include" OR NOT pc_flags MATCHES "-L${libdir}")
    message(FATAL_ERROR "pkg-config's flags do not point into ${prefix_dir}: ${pc_flags}")
  endif()
  separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
  separate_arguments(extra_flags UNIX_COMMAND "${CXX_FLAGS} ${link_flags}")
  file(MAKE_DIRECTORY "${work}")
  run(${CXX_COMPILER} -std=c++17 "${CONSUMER_DIR}/main.cpp" -o "${work}/consumer" ${pc_flags}
    ${extra_flags})
endif()

run(${EMULATOR} "${work}/consumer")
