#!/usr/bin/env bash
# Unpacks the armhf libuuid (headers and shared library) from Debian's packages into a sysroot
# folder for the cross build. Idempotent: does nothing when the folder already holds them.
#
#   tools/armhf-sysroot.sh <sysroot-folder>
#
# The packages are fetched through an apt state of the folder's own (package lists, cache and
# architecture), so the host's dpkg architectures and package lists stay as they are, and an index
# that fails to download (a mirror in the middle of a sync, say) fails nothing as long as the two
# packages can still be had from the indices that did arrive.
set -euo pipefail

sysroot=${1:?usage: armhf-sysroot.sh <sysroot-folder>}
header="$sysroot/usr/include/uuid/uuid.h"
library="$sysroot/usr/lib/arm-linux-gnueabihf/libuuid.so.1"
packages=(uuid-dev:armhf libuuid1:armhf)

if [[ -f "$header" && -e "$library" ]]; then
  exit 0
fi

state=$(mktemp -d)
trap 'rm -rf "$state"' EXIT
mkdir -p "$state/lists/partial" "$state/cache/archives/partial" "$state/download"
touch "$state/status"

private_apt=(
  -o "APT::Architecture=armhf"
  -o "APT::Architectures::=armhf"
  -o "Dir::State=$state"
  -o "Dir::State::Lists=$state/lists"
  -o "Dir::State::status=$state/status"
  -o "Dir::Cache=$state/cache"
  -o "Dir::Cache::pkgcache="
  -o "Dir::Cache::srcpkgcache="
  -o "APT::Sandbox::User=root"
  -o "Debug::NoLocking=true"
)

# A failing index is reported but not fatal: whether the packages are there decides.
if ! apt-get "${private_apt[@]}" -qq update; then
  echo "armhf-sysroot: some package indices could not be fetched; going on with the others" >&2
fi

(cd "$state/download" && apt-get "${private_apt[@]}" -qq download "${packages[@]}")
mkdir -p "$sysroot"
for package in "$state/download"/*.deb; do
  dpkg -x "$package" "$sysroot"
done
[[ -f "$header" && -e "$library" ]]
