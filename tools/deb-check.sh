#!/usr/bin/env bash
# Checks the Debian packages end to end: builds them from a fresh clone of the commit checked out
# (dpkg-buildpackage -us -uc -b, the tests running in the build), checks them and the source
# package with lintian, installs them in a fresh minimal Debian 12 root and builds and runs the
# consumer project (tests/packaging/consumer/) there against the installed packages, through
# find_package(VelmoraBase) and through pkg-config. Exits non-zero on the first failure.
#
#   tools/deb-check.sh
#
# Needs root (debootstrap, chroot, mount), the packages of `tools/setup.sh --with deb` and the
# network to a Debian mirror (DEB_CHECK_MIRROR, default http://deb.debian.org/debian).
# DEB_BUILD_OPTIONS defaults to parallel=2. Only committed work is checked: the clone is of HEAD.
set -euo pipefail
cd "$(dirname "$0")/.."

mirror=${DEB_CHECK_MIRROR:-http://deb.debian.org/debian}
export DEB_BUILD_OPTIONS=${DEB_BUILD_OPTIONS:-parallel=2}
# What the consumer needs besides the packages: a compiler, CMake, make and pkg-config.
root_packages=g++,make,cmake,pkg-config

if ((EUID != 0)); then
  echo "deb-check.sh needs root: debootstrap, chroot and mount" >&2
  exit 1
fi
if [[ -n "$(git status --porcelain --untracked-files=no)" ]]; then
  echo "Note: the working tree has uncommitted changes; the check builds HEAD without them."
fi

work=$(mktemp -d /tmp/deb-check.XXXXXX)
root="$work/root"
# The clone is named <source>-<version>, as dpkg-source expects of a source tree.
version=$(git show HEAD:debian/changelog | dpkg-parsechangelog -l- -S Version)
src="$work/libbase-utils-$version"
bootstrap_pid=""

cleanup() {
  local status=$?
  if [[ -n "$bootstrap_pid" ]] && kill -0 "$bootstrap_pid" 2>/dev/null; then
    kill "$bootstrap_pid" 2>/dev/null || true
    wait "$bootstrap_pid" 2>/dev/null || true
  fi
  # The root is a tmpfs: unmounting it recursively also unmounts /proc and whatever debootstrap
  # left mounted inside. Nothing is deleted while anything is still mounted there.
  if mountpoint -q "$root" && ! umount -R "$root"; then
    echo "Could not unmount $root; left $work in place" >&2
    exit 1
  fi
  rm -rf "$work"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

step() { echo; echo "--- $* ($(date +%T), ${SECONDS}s)"; }

step "fresh clone of HEAD $(git rev-parse --short HEAD)"
git clone --quiet --no-checkout "$PWD" "$src"
git -C "$src" checkout --quiet --detach "$(git rev-parse HEAD)"

# debootstrap mostly waits for the mirror; it runs while the package build keeps the CPUs busy.
step "fresh Debian 12 root (debootstrap --variant=minbase, in the background)"
mkdir "$root"
mount -t tmpfs -o size=3G,mode=0755 deb-check-root "$root"
debootstrap --variant=minbase --include="$root_packages" bookworm "$root" "$mirror" \
  >"$work/debootstrap.log" 2>&1 &
bootstrap_pid=$!

step "source package"
(cd "$work" && dpkg-source --build "$src")

step "binary packages: dpkg-buildpackage -us -uc -b with DEB_BUILD_OPTIONS=$DEB_BUILD_OPTIONS"
if ! (cd "$src" && dpkg-buildpackage -us -uc -b) >"$work/build.log" 2>&1; then
  tail -n 150 "$work/build.log"
  echo "The package build failed (the end of its log above)" >&2
  exit 1
fi
grep -E "tests passed|dpkg-gensymbols|dpkg-deb: building" "$work/build.log" || true

step "lintian"
lintian --fail-on error,warning "$work"/libbase-utils_*.dsc "$work"/libbase-utils_*.changes

step "waiting for the Debian 12 root"
if ! wait "$bootstrap_pid"; then
  bootstrap_pid=""
  tail -n 50 "$work/debootstrap.log"
  echo "debootstrap failed (the end of its log above)" >&2
  exit 1
fi
bootstrap_pid=""

step "install the packages in the root"
mount -t proc proc "$root/proc"
mkdir "$root/debs"
cp "$work"/libbase-utils1_*.deb "$work"/libbase-utils-dev_*.deb "$work"/libvex-debug1_*.deb \
  "$root/debs/"
cp -r "$src/tests/packaging/consumer" "$root/consumer"
in_root() {
  chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
    bash -euo pipefail -c "$1"
}
in_root 'dpkg -i /debs/*.deb && dpkg -l "libbase-utils*" "libvex-debug*" | grep "^ii"'

step "consumer through find_package(VelmoraBase)"
in_root 'cmake -S /consumer -B /build/find_package && cmake --build /build/find_package &&
  /build/find_package/consumer'

step "consumer through pkg-config"
in_root 'mkdir -p /build/pkg-config && cd /build/pkg-config &&
  g++ -std=c++17 /consumer/main.cpp -o consumer $(pkg-config --cflags --libs velmora-base) &&
  ./consumer'

step "the Debian packages passed"
