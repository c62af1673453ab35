#!/usr/bin/env bash
# Builds the library, tests and examples the way distributions and device images do, and runs the
# tests: every build type with GCC, clang and the armhf cross compiler (tests under qemu-arm),
# each plain and with Debian's hardening flags, warnings as errors. Prints a line per build and a
# summary; exits non-zero when any build or test run failed.
#
#   tools/build-matrix.sh [compilers] [build types] [flag sets]
#   tools/build-matrix.sh "gcc clang armhf" "None Debug Release RelWithDebInfo MinSizeRel" \
#     "plain hardened"                            # the default: all of it
#
# Build folders go to build/matrix/<compiler>-<type>-<flags>; a passing one is removed, a failing
# one kept with its log (build/matrix/<name>.log).
set -uo pipefail
cd "$(dirname "$0")/.."

compilers=${1:-gcc clang armhf}
build_types=${2:-None Debug Release RelWithDebInfo MinSizeRel}
flag_sets=${3:-plain hardened}

# What dpkg-buildflags gives on Debian 12.
hardened_compile="-O2 -g -fstack-protector-strong -Wformat -Werror=format-security -D_FORTIFY_SOURCE=2"
hardened_link="-Wl,-z,relro -Wl,-z,now"

root=build/matrix
mkdir -p "$root"
failures=0

for compiler in $compilers; do
  for build_type in $build_types; do
    for flags in $flag_sets; do
      name="$compiler-$build_type-$flags"
      dir="$root/$name"
      log="$root/$name.log"
      args=(-S . -B "$dir" -DCMAKE_BUILD_TYPE="$build_type" -DVELMORA_WARNINGS_AS_ERRORS=ON)
      case "$compiler" in
        clang) args+=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++) ;;
        armhf)
          args+=(-DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm-linux-gnueabihf.cmake
            -DVELMORA_TARGET_SYSROOT="$PWD/$root/armhf-sysroot")
          ;;
      esac
      environment=(env -u CFLAGS -u CXXFLAGS -u LDFLAGS)
      if [[ "$flags" == hardened ]]; then
        environment+=(CFLAGS="$hardened_compile" CXXFLAGS="$hardened_compile"
          LDFLAGS="$hardened_link")
      fi
      rm -rf "$dir"
      start=$SECONDS
      if "${environment[@]}" cmake "${args[@]}" >"$log" 2>&1 &&
        cmake --build "$dir" -j2 >>"$log" 2>&1 &&
        ctest --test-dir "$dir" -j2 --timeout 600 --no-tests=error >>"$log" 2>&1; then
        result="passed, $(grep -Eo '[0-9]+ tests failed out of [0-9]+' "$log" | tail -n 1)"
        rm -rf "$dir"
      else
        result="FAILED (see $log)"
        failures=$((failures + 1))
      fi
      printf '%-36s %4ds  %s\n' "$name" $((SECONDS - start)) "$result"
    done
  done
done

echo "matrix: $failures failed"
((failures == 0))
