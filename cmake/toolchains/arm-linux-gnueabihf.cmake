# Cross build for the device: 32-bit ARM Linux with hard-float ABI, Debian's cross compiler.
# Tests run under qemu-arm. Search roots given with -DCMAKE_FIND_ROOT_PATH (a staged tree, say)
# are searched besides the ones below.
#
# The target's libraries come from one of two places:
# - a device SDK's complete sysroot, given as CMAKE_SYSROOT (-DCMAKE_SYSROOT=/path/to/sdk/sysroot),
#   which the compiler, the library searches and qemu-arm all use;
# - otherwise Debian's cross runtime under /usr/arm-linux-gnueabihf plus a folder for what it lacks
#   (libuuid), VELMORA_TARGET_SYSROOT: by default build/<preset>/sysroot, which the configuration
#   fills from Debian's armhf packages (tools/armhf-sysroot.sh) unless it already holds libuuid.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(VELMORA_CROSS_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${VELMORA_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${VELMORA_CROSS_TRIPLE}-g++)
# GCC notes on every std::vector<double> iterator that its ABI changed in GCC 7.1; both the
# library and its users are built with GCC 12, so the note says nothing here.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
set(CMAKE_LIBRARY_ARCHITECTURE ${VELMORA_CROSS_TRIPLE})

if(CMAKE_SYSROOT)
  set(VELMORA_TARGET_SYSROOT "" CACHE PATH "Unused: CMAKE_SYSROOT holds the target's libraries")
  list(APPEND CMAKE_FIND_ROOT_PATH "${CMAKE_SYSROOT}")
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L "${CMAKE_SYSROOT}")
else()
  set(VELMORA_TARGET_SYSROOT "${CMAKE_BINARY_DIR}/sysroot" CACHE PATH
    "Folder holding the target's libraries that the cross toolchain lacks")
  set(VELMORA_CROSS_RUNTIME "/usr/${VELMORA_CROSS_TRIPLE}")
  list(APPEND CMAKE_FIND_ROOT_PATH "${VELMORA_CROSS_RUNTIME}" "${VELMORA_TARGET_SYSROOT}")
  set(VELMORA_TARGET_LIBRARY_DIR "${VELMORA_TARGET_SYSROOT}/usr/lib/${VELMORA_CROSS_TRIPLE}")
  # The linker finds the libraries' own dependencies (libuuid) there, as the loader does.
  set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${VELMORA_TARGET_LIBRARY_DIR}")
  set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${VELMORA_TARGET_LIBRARY_DIR}")
  set(CMAKE_CROSSCOMPILING_EMULATOR
    qemu-arm -L "${VELMORA_CROSS_RUNTIME}" -E "LD_LIBRARY_PATH=${VELMORA_TARGET_LIBRARY_DIR}")
endif()

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
