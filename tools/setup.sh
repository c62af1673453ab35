#!/usr/bin/env bash
# Sets up a Debian 12 machine for the project and proves it: installs the Debian packages that are
# missing (and only those, through sudo when not run as root; without root or sudo it prints the
# command to run as root and exits with status 1), then builds and runs the example program with
# `cmake --workflow --preset example`.
#
#   tools/setup.sh                      # what building, testing and the example need
#   tools/setup.sh --with cross,clang   # and what the named extras need
#   tools/setup.sh --install-only ...   # install, but build and run nothing
#
# Extras: bench (benchmarks and their baselines), cross (the armhf build under qemu-arm), clang
# (clang builds, fuzz targets), checks (API reference, coverage, memcheck), deb (Debian packages).
# Run again, it finds everything in place and installs nothing.
set -euo pipefail
cd "$(dirname "$0")/.."

declare -A reason=(
  [cmake]="builds the project (3.25 or newer)"
  [g++]="compiles the library"
  [make]="runs the build"
  [uuid-dev]="libuuid, the library's one dependency"
  [pkg-config]="the installed-package tests consume the library through pkg-config"
  [googletest]="GoogleTest sources under /usr/src/googletest, built with the tests"
  [abigail-tools]="abidw and abidiff, which compare the binary interface with its baseline"
  [zlib1g-dev]="zlib, the oracle for CRC-32 in tests and benchmarks"
  [libssl-dev]="OpenSSL, the oracle for MD5 in tests and benchmarks"
  [libbenchmark-dev]="Google Benchmark, for the programs in bench/"
  [g++-arm-linux-gnueabihf]="the cross compiler for the 32-bit ARM device"
  [qemu-user]="qemu-arm, which runs the armhf tests"
  [clang]="the clang builds and the fuzz targets"
  [libclang-rt-14-dev]="clang's sanitizer and libFuzzer run-times"
  [doxygen]="the API reference"
  [gcovr]="the coverage report"
  [valgrind]="the memcheck run"
  [build-essential]="dpkg-buildpackage requires it of every package build"
  [debhelper]="builds the Debian packages (debian/)"
  [lintian]="checks the Debian packages"
  [debootstrap]="the fresh Debian 12 root that tools/deb-check.sh installs the packages in"
  [git]="tools/deb-check.sh builds the packages from a fresh clone"
)
declare -A group=(
  [base]="cmake g++ make uuid-dev pkg-config googletest abigail-tools zlib1g-dev libssl-dev"
  [bench]="libbenchmark-dev zlib1g-dev libssl-dev"
  [cross]="g++-arm-linux-gnueabihf qemu-user"
  [clang]="clang libclang-rt-14-dev"
  [checks]="doxygen gcovr valgrind"
  [deb]="build-essential debhelper lintian debootstrap git"
)

usage() {
  sed -n '2,13p' "$0" | sed 's/^# \{0,1\}//' >&2
  exit 2
}

install_only=false
groups=(base)
while (($#)); do
  case "$1" in
    --install-only) install_only=true ;;
    --with)
      (($# > 1)) || usage
      IFS=, read -r -a extras <<<"$2"
      for extra in "${extras[@]}"; do
        [[ -n "${group[$extra]:-}" && "$extra" != base ]] || usage
        groups+=("$extra")
      done
      shift
      ;;
    *) usage ;;
  esac
  shift
done

is_installed() {
  dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"
}

missing=()
for name in "${groups[@]}"; do
  for package in ${group[$name]}; do
    if ! is_installed "$package" && [[ " ${missing[*]} " != *" $package "* ]]; then
      missing+=("$package")
    fi
  done
done

if ((${#missing[@]})); then
  echo "Installing the Debian packages that are missing:"
  for package in "${missing[@]}"; do
    printf '  %-24s %s\n' "$package" "${reason[$package]}"
  done
  as_root=()
  if ((EUID != 0)); then
    if ! command -v sudo >/dev/null; then
      echo "Not root and no sudo: run this as root, then tools/setup.sh again:" >&2
      echo "  apt-get update && apt-get install -y --no-install-recommends ${missing[*]}" >&2
      exit 1
    fi
    as_root=(sudo)
  fi
  # An index that fails (a mirror in the middle of a sync) need not hold what is missing.
  "${as_root[@]}" apt-get update -qq || echo "Some package indices could not be fetched; going on."
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
else
  echo "All the Debian packages needed are installed."
fi

if ! $install_only; then
  cmake --workflow --preset example
fi
