#!/usr/bin/env bash
# Unpacks the armhf libuuid (headers and shared library) from Debian's packages into a sysroot
# folder for the cross build. Idempotent: does nothing when the folder already holds them.
#
#   tools/armhf-sysroot.sh <sysroot-folder>
set -euo pipefail

sysroot=${1:?usage: armhf-sysroot.sh <sysroot-folder>}
header="$sysroot/usr/include/uuid/uuid.h"
library="$sysroot/usr/lib/arm-linux-gnueabihf/libuuid.so.1"

if [[ -f "$header" && -e "$library" ]]; then
  exit 0
fi

if ! dpkg --print-foreign-architectures | grep -qx armhf; then
  dpkg --add-architecture armhf
fi
if ! apt-cache show uuid-dev:armhf >/dev/null 2>&1; then
  apt-get update -qq
fi

download=$(mktemp -d)
trap 'rm -rf "$download"' EXIT
chmod 777 "$download"
(cd "$download" && apt-get download -qq uuid-dev:armhf libuuid1:armhf)
mkdir -p "$sysroot"
for package in "$download"/*.deb; do
  dpkg -x "$package" "$sysroot"
done
[[ -f "$header" && -e "$library" ]]
